/* The C headers, included twice each, must compile as strict C99 and C++. */
#include "kormotypes.h"
#include "kormomav.h"
#include "kormopel.h"
#include "kormomav.h"
#include "kormopel.h"

/* A C caller's view of the summary record must match the library's. */
typedef char summary_size_is_32[sizeof(MAV_SCANINFO) == 32 ? 1 : -1];
typedef char events_table_is_12_slots[sizeof(MAV_EVENTS) == 12 * sizeof(void*) ? 1 : -1];

int kormo_header_check(void);
int kormo_header_check(void) {
    summary_size_is_32 a;
    events_table_is_12_slots b;
    (void)a;
    (void)b;
    return MAV_OK + (int)VS_TYPE_BOOL + (int)VS_P_INITDRIVERS;
}
