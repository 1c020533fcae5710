package kormo.security.core.server.mav.api;

/** One infection found by the last scan. */
public final class Infection {
    private final boolean repairable;
    private final long jobId;
    private final long virusId;
    private final String virusName;
    private final String objectName;
    private final long objectSize;
    private final String freeText;

    /**
     * @param repairable whether the infection can be cleaned
     * @param jobId job number of the scan
     * @param virusId vendor's virus identifier
     * @param virusName virus name
     * @param objectName infected object
     * @param objectSize size of the object in bytes
     * @param freeText vendor's free text
     */
    public Infection(boolean repairable, long jobId, long virusId, String virusName,
            String objectName, long objectSize, String freeText) {
        this.repairable = repairable;
        this.jobId = jobId;
        this.virusId = virusId;
        this.virusName = virusName;
        this.objectName = objectName;
        this.objectSize = objectSize;
        this.freeText = freeText;
    }

    public boolean isRepairable() {
        return repairable;
    }

    public long getJobId() {
        return jobId;
    }

    public long getVirusId() {
        return virusId;
    }

    public String getVirusName() {
        return virusName;
    }

    public String getObjectName() {
        return objectName;
    }

    public long getObjectSize() {
        return objectSize;
    }

    public String getFreeText() {
        return freeText;
    }

    @Override
    public String toString() {
        return "Infection[" + virusName + " in " + objectName + ", id=" + virusId + ", job="
                + jobId + ", size=" + objectSize + ", repairable=" + repairable + "]";
    }
}
