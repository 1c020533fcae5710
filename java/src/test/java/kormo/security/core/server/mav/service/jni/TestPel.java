package kormo.security.core.server.mav.service.jni;

/**
 * Scripts the test adapter from Java through the test shim library (system
 * properties kormo.testshim: the shim; kormo.testpel: libtestpel.so, the same
 * file the tests hand to initPEL).
 */
final class TestPel {
    static final int STARTUP = 0;
    static final int GETCONFIG = 1;
    static final int INIT = 2;
    static final int SCAN = 3;
    static final int RELEASESCAN = 4;
    static final int END = 5;
    static final int CLEANUP = 6;

    /** Parameter types (VS_PARAMTYPE_T). */
    static final int BOOL = 0;
    static final int INT = 3;
    static final int FLOAT = 5;
    static final int CHAR = 7;

    static final String PATH = System.getProperty("kormo.testpel");

    static {
        System.load(System.getProperty("kormo.testshim"));
        if (!open(PATH)) {
            throw new IllegalStateException("cannot open the test adapter " + PATH);
        }
    }

    private TestPel() {}

    private static native boolean open(String path);

    static native void reset();

    static native void setAdapterInfo(int id, int threadModel, int mavVersion, int major,
            int minor, String vendor, String name);

    static native void setNoAdapterInfo(boolean on);

    static native void addParam(boolean initList, int code, int type, String value);

    static native void fail(int entry, int rc, String vendorText);

    static native int calls(int entry);

    static native int liveInits();

    static native void scriptClear();

    static native void scriptRc(int rc);

    static native void scriptInfection(String virus, String object, int virusId,
            boolean repairable, long size, String freeText);

    static native void scriptScanError(String object, int rc, String text, long size);

    static native void scriptContent(String object, String extension, String contentType,
            String charSet, int objectType, long size);

    static native void scriptCleaned(byte[] bytes);

    static native void setEngine(int major, int minor, String text, long date, long viruses);

    static native void clearDrivers();

    static native void addDriver(String name, int major, int minor, long date, long viruses,
            long variants, int driverRc);

    /** {scan code, action code, job ID, had bytes, length, had scan info, file existed}. */
    static native long[] lastScan();

    static native String lastObjectName();
}
