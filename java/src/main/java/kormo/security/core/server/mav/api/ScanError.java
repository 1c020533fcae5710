package kormo.security.core.server.mav.api;

/** One object that the last scan could not scan. */
public final class ScanError {
    private final long jobId;
    private final long errorCode;
    private final String errorText;
    private final String objectName;
    private final long objectSize;

    /**
     * @param jobId job number of the scan
     * @param errorCode the engine's error code (signed)
     * @param errorText error text
     * @param objectName the object
     * @param objectSize size of the object in bytes
     */
    public ScanError(long jobId, long errorCode, String errorText, String objectName,
            long objectSize) {
        this.jobId = jobId;
        this.errorCode = errorCode;
        this.errorText = errorText;
        this.objectName = objectName;
        this.objectSize = objectSize;
    }

    public long getJobId() {
        return jobId;
    }

    public long getErrorCode() {
        return errorCode;
    }

    public String getErrorText() {
        return errorText;
    }

    public String getObjectName() {
        return objectName;
    }

    public long getObjectSize() {
        return objectSize;
    }

    @Override
    public String toString() {
        return "ScanError[" + objectName + ": " + errorCode + " " + errorText + ", job=" + jobId
                + ", size=" + objectSize + "]";
    }
}
