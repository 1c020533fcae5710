package kormo.security.core.server.mav.api;

/** What one scanned object is. */
public final class ContentInfo {
    private final String extension;
    private final String contentType;
    private final String objectName;
    private final long objectSize;

    /**
     * @param extension file extension found
     * @param contentType MIME type found
     * @param objectName the object
     * @param objectSize size of the object in bytes
     */
    public ContentInfo(String extension, String contentType, String objectName, long objectSize) {
        this.extension = extension;
        this.contentType = contentType;
        this.objectName = objectName;
        this.objectSize = objectSize;
    }

    public String getExtension() {
        return extension;
    }

    public String getContentType() {
        return contentType;
    }

    public String getObjectName() {
        return objectName;
    }

    public long getObjectSize() {
        return objectSize;
    }

    @Override
    public String toString() {
        return "ContentInfo[" + objectName + ": " + contentType + " (" + extension + "), size="
                + objectSize + "]";
    }
}
