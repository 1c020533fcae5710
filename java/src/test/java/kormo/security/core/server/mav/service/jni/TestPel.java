package kormo.security.core.server.mav.service.jni;

/**
 * Scripts the test adapter from Java through the test shim library (system
 * properties kormo.testshim: the shim; kormo.testpel: libtestpel.so, the same
 * file the tests hand to initPEL).
 */
final class TestPel {
    /** Entry points (TPEL_ENTRY) and parameter types (VS_PARAMTYPE_T). */
    static final int STARTUP = 0, INIT = 2, SCAN = 3, CLEANUP = 6;
    static final int BOOL = 0, INT = 3, FLOAT = 5, CHAR = 7;
    static final String PATH = System.getProperty("kormo.testpel");

    static {
        System.load(System.getProperty("kormo.testshim"));
        if (!open(PATH)) throw new IllegalStateException("cannot open the test adapter " + PATH);
    }

    private TestPel() {}

    private static native boolean open(String path);

    static native void reset();

    static native void addParam(boolean initList, int code, int type, String value);

    static native void fail(int entry, int rc, String vendorText);

    static native int calls(int entry);

    static native int liveInits();

    static native void scriptRc(int rc);

    static native void scriptInfection(String virus, String object, int virusId,
            boolean repairable, long size, String freeText);

    static native void scriptScanError(String object, int rc, String text, long size);

    static native void scriptCleaned(byte[] bytes);

    /** "scan-code action job had-bytes length had-report file-existed name", or null. */
    static native String lastScan();
}
