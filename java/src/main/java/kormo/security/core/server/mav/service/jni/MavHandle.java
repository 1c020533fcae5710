package kormo.security.core.server.mav.service.jni;

/**
 * Holder of one library handle (an adapter handle from {@link Mavgate#initPEL},
 * or an instance from {@link Mavgate#createInstance}) and of what the last
 * native call on it reported. The natives find every field by its name and
 * type, so the names below are the interface.
 *
 * <p>A holder is not thread safe: use one per thread, or synchronise.
 */
public class MavHandle {
    /** The library's handle as a number; 0 = none. */
    public long m_Handle;
    /** Name of the last return code (for example "MAV_E_VIRUS_FOUND"), null after success. */
    public String m_lastError;
    /** Description of the last return code, null after success. */
    public String m_lastErrorDescription;
    /** Return code of {@link Mavgate#getEngine}. */
    public int m_rc;
    /** Number of adapter parameters of the handle. */
    public int m_NumberOfParameters;
    /** Adapter name. */
    public String m_VendorPelName;
    /** Vendor text of the adapter. */
    public String m_VendorInfoText;
    /** Adapter major version. */
    public int m_MajPelVersion;
    /** Adapter minor version. */
    public int m_MinPelVersion;
    /** Length of the object after a successful scan. */
    public long m_CleanedLength;
    /** Set to have {@link Mavgate#pelScan} fill the scan report fields below. */
    public boolean m_ScanInfo;
    /** Scan report: job number. */
    public long m_JobID;
    /** Scan report: objects scanned. */
    public long m_ScannedObjects;
    /** Scan report: objects not scanned. */
    public long m_NotScannedObjects;
    /** Scan report: clean objects. */
    public long m_CleanObjects;
    /** Scan report: infections. */
    public long m_Infections;
    /** Scan report: scan errors. */
    public long m_ScanErrors;

    public MavHandle() {}

    /** A holder that asks for scan reports. */
    public MavHandle(boolean scanInfo) {
        this.m_ScanInfo = scanInfo;
    }

    public boolean isOpen() {
        return m_Handle != 0;
    }

    public String getLastError() {
        return m_lastError;
    }

    public String getLastErrorDescription() {
        return m_lastErrorDescription;
    }

    @Override
    public String toString() {
        return "MavHandle[0x" + Long.toHexString(m_Handle) + ", " + m_VendorPelName + ", last="
                + m_lastError + "]";
    }
}
