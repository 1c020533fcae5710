package kormo.security.core.server.mav.api;

/** One driver (definition file) loaded by the engine. */
public final class Driver {
    private final int majorVersion;
    private final int minorVersion;
    private final String name;
    private final long date;
    private final long viruses;

    /**
     * @param majorVersion driver major version
     * @param minorVersion driver minor version
     * @param name driver name, may be null
     * @param date driver date in milliseconds since 1970-01-01 UTC
     * @param viruses number of viruses the driver knows
     */
    public Driver(int majorVersion, int minorVersion, String name, long date, long viruses) {
        this.majorVersion = majorVersion;
        this.minorVersion = minorVersion;
        this.name = name;
        this.date = date;
        this.viruses = viruses;
    }

    public int getMajorVersion() {
        return majorVersion;
    }

    public int getMinorVersion() {
        return minorVersion;
    }

    public String getName() {
        return name;
    }

    /** Milliseconds since 1970-01-01 UTC. */
    public long getDate() {
        return date;
    }

    public long getViruses() {
        return viruses;
    }

    @Override
    public String toString() {
        return "Driver[" + name + " " + majorVersion + "." + minorVersion + ", date=" + date
                + ", viruses=" + viruses + "]";
    }
}
