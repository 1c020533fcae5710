package kormo.security.core.server.mav.service.jni;

import kormo.security.core.server.mav.api.Engine;

/**
 * The native entry points of libkormomav.
 *
 * <p>The library is loaded when this class initialises: from the absolute path
 * in the system property {@code kormomav.library} when it is set, else by
 * {@code System.loadLibrary("kormomav")} (java.library.path).
 *
 * <p>Every method that takes a holder reports through it: the result is the
 * library's return code (0 success, 1..32 a failure, -1..-6 a scan verdict,
 * see {@link #getErrorInfo}), and the holder's {@code m_lastError} and
 * {@code m_lastErrorDescription} receive the code's name and description (both
 * null after success). No method throws for a failure of the library; a null
 * holder gives 2 ({@code MAV_E_NULL_PARAM}) and writes nothing. Lists are any
 * object with {@code boolean add(Object)}, for example a {@link java.util.List}.
 */
public final class Mavgate {
    /** System property naming the library file. */
    public static final String LIBRARY_PROPERTY = "kormomav.library";

    /** Scan codes of {@link #pelScan}. */
    public static final long SCAN_BYTES = 2;
    public static final long SCAN_FILE = 4;
    /** Action bits of {@link #pelScan} (0: the configured default). */
    public static final long ACTION_CHECK_MIME = 0x1;
    public static final long ACTION_SCAN = 0x2;
    public static final long ACTION_CLEAN = 0x8;
    public static final long ACTION_ACTIVE_CONTENT = 0x10;
    /** Kinds of {@link #getInstanceInfo}. */
    public static final int INFO_DRIVERS = 1;
    public static final int INFO_INFECTIONS = 2;
    public static final int INFO_SCAN_ERRORS = 4;
    public static final int INFO_CONTENT = 8;
    /** Trace level bit of the bridge itself. */
    public static final int TRACE_JNI = 0x4000;

    static {
        String path = System.getProperty(LIBRARY_PROPERTY);
        if (path != null && !path.isEmpty()) {
            System.load(path);
        } else {
            loadFromLibraryPath();
        }
    }

    /**
     * libkormomav.so from java.library.path; else the run-time file
     * libkormomav.so.1 (all an installation without development files has)
     * from java.library.path and the system's library folders.
     */
    private static void loadFromLibraryPath() {
        try {
            System.loadLibrary("kormomav");
            return;
        } catch (UnsatisfiedLinkError e) {
            String dirs = System.getProperty("java.library.path", "")
                    + java.io.File.pathSeparator + "/usr/local/lib"
                    + java.io.File.pathSeparator + "/usr/lib/x86_64-linux-gnu"
                    + java.io.File.pathSeparator + "/usr/lib64"
                    + java.io.File.pathSeparator + "/usr/lib";
            for (String dir : dirs.split(java.io.File.pathSeparator)) {
                java.io.File f = new java.io.File(dir, "libkormomav.so.1");
                if (!dir.isEmpty() && f.isFile()) {
                    System.load(f.getAbsolutePath());
                    return;
                }
            }
            throw e;
        }
    }

    private Mavgate() {}

    // ---- Lifecycle, pools, codes ------------------------------------------------

    /**
     * Loads and starts an adapter (config: its file, or null for $PEL_LIB or
     * the default). On success the holder receives the handle, the adapter's
     * name, vendor text, version and parameter count. On failure the adapter's
     * own message, when it left one, stands in both error fields, and nothing
     * of the failed start is kept.
     */
    public static native int initPEL(String config, Object holder);

    /** Ends the handle; on success the holder's adapter fields are cleared. */
    public static native int endPEL(Object holder);

    /**
     * Restarts the engine instances of the handle, or of every handle for a
     * null holder. Blocks: any failure is retried once a second, up to 999
     * times, then 16 ({@code MAV_E_IN_PROGRESS}) is returned.
     */
    public static native int reloadPEL(Object holder);

    /** Takes an instance of the configuration holder's handle into the instance holder. */
    public static native int createInstance(Object configurationHolder, Object instanceHolder);

    /** Returns the instance to its pool or ends it; the holder's handle becomes 0. */
    public static native int freeInstance(Object holder);

    /** The configured pool size of the handle (not a return code). */
    public static native int getPoolSize(Object holder);

    public static native int setPoolSize(Object holder, int size);

    public static native int freePool(Object holder);

    /** Fills the pool with count free instances; flag gives each the default parameters. */
    public static native int loadPool(Object holder, int count, boolean flag);

    /** Puts name and description of rc into the holder; returns rc. */
    public static native int getErrorInfo(Object holder, int rc);

    // ---- Trace ------------------------------------------------------------------

    public static native int getTraceLevel();

    /** Sets a non-zero level and returns 0; 0 changes nothing and returns the current level. */
    public static native int setTraceLevel(int level);

    /**
     * Traces into the file at path (truncated; the previous file at path is
     * kept as "dev_MAV.old" in the working directory) with the given level.
     */
    public static native int setTrace(String path, long level);

    // ---- Scans and results ----------------------------------------------------------

    /**
     * Scans bytes ({@link #SCAN_BYTES}: the first length bytes of buffer, named
     * name) or a file ({@link #SCAN_FILE}: name is the path, buffer null). A
     * cleaned buffer ({@code -1}) is copied back into buffer. With
     * {@code m_ScanInfo} set a successful scan fills the holder's report.
     */
    public static native int pelScan(Object holder, long scanCode, long actionCode, String name,
            byte[] buffer, long length, long jobId);

    /** Adds result objects of one kind (INFO_*) to list. */
    public static native int getInstanceInfo(Object holder, int kind, Object list);

    public static native int getDrivers(Object holder, Object list);

    public static native int getInfections(Object holder, Object list);

    public static native int getScanErrors(Object holder, Object list);

    public static native int getContentInfos(Object holder, Object list);

    /** The engine, or null; the code is in the holder's {@code m_rc}. */
    public static native Engine getEngine(Object holder);

    // ---- Parameters -------------------------------------------------------------

    /** Adds every adapter parameter as a {@code Parameter} to list. */
    public static native int getParameters(Object holder, Object list);

    /**
     * Reads the parameter named by parameter (with its type name; "BOOL"
     * matches any) and writes name, type and value back into it.
     */
    public static native int getParameter(Object holder, Object parameter);

    /** Sets the parameter from its value text (null: back to the default). */
    public static native int setParameter(Object holder, Object parameter);

    public static native int setDefaultConfig(Object holder);

    // ---- Library ------------------------------------------------------------------

    /** The loaded library's version, for example "1.1.0". */
    public static native String getVersion();
}
