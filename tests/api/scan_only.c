/* Compiled after one public header (-include): it must stand alone. With
 * KORMO_SCAN_ONLY the header was kormomav.h, which must not bring in the
 * adapter records. */
#if defined(KORMO_SCAN_ONLY) && defined(KORMOPEL_H)
#error "kormomav.h includes the adapter interface"
#endif
typedef int kormo_translation_unit_is_not_empty;
