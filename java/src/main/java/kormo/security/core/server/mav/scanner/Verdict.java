package kormo.security.core.server.mav.scanner;

/** What a scan concluded about an object it was able to scan. */
public enum Verdict {
    /** An engine scanned the object and found nothing. */
    CLEAN,
    /** Something was found and the object was cleaned (the cleaned bytes replace the input). */
    CLEANED,
    /** Something was found (a virus, a macro or a pattern). */
    INFECTED,
    /** Something was found and cleaning it failed. */
    CLEAN_FAILED,
    /** The object is blocked by policy (its type or extension). */
    BLOCKED;

    /** The verdict of a library result code of 0 or below. */
    static Verdict of(int code) {
        switch (code) {
            case 0: return CLEAN;
            case -1: return CLEANED;
            case -5: return CLEAN_FAILED;
            case -6: return BLOCKED;
            default: return INFECTED;
        }
    }
}
