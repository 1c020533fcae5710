package kormo.security.core.server.mav.api;

/** The scan engine behind an adapter: versions, signature date and counts. */
public final class Engine {
    private final int majorVersion;
    private final int minorVersion;
    private final String versionText;
    private final long date;
    private final long viruses;
    private final short drivers;

    /**
     * @param majorVersion engine major version
     * @param minorVersion engine minor version
     * @param versionText engine version text, may be null
     * @param date engine date in milliseconds since 1970-01-01 UTC
     * @param viruses number of viruses known
     * @param drivers number of loaded drivers
     */
    public Engine(int majorVersion, int minorVersion, String versionText, long date, long viruses,
            short drivers) {
        this.majorVersion = majorVersion;
        this.minorVersion = minorVersion;
        this.versionText = versionText;
        this.date = date;
        this.viruses = viruses;
        this.drivers = drivers;
    }

    public int getMajorVersion() {
        return majorVersion;
    }

    public int getMinorVersion() {
        return minorVersion;
    }

    public String getVersionText() {
        return versionText;
    }

    /** Milliseconds since 1970-01-01 UTC. */
    public long getDate() {
        return date;
    }

    public long getViruses() {
        return viruses;
    }

    public short getDrivers() {
        return drivers;
    }

    @Override
    public String toString() {
        return "Engine[" + majorVersion + "." + minorVersion + " " + versionText + ", date=" + date
                + ", viruses=" + viruses + ", drivers=" + drivers + "]";
    }
}
