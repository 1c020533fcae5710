package kormo.security.core.server.mav.scanner;

/**
 * A call the library could not carry out, or an object it could not scan (a
 * limit, an engine error, an unreadable object): never a verdict of clean.
 * Carries the library's code, the code's name and the adapter's own text
 * where it left one.
 */
public class ScanException extends Exception {
    private static final long serialVersionUID = 1L;

    private final int code;
    private final String codeName;
    private final String adapterText;

    public ScanException(int code, String codeName, String description, String adapterText) {
        super(codeName + " (" + code + "): " + description
                + (adapterText == null || adapterText.isEmpty() ? "" : ": " + adapterText));
        this.code = code;
        this.codeName = codeName;
        this.adapterText = adapterText;
    }

    /** The library's result code (1 to 32), for example 14 for "not scanned". */
    public int getCode() {
        return code;
    }

    /** The code's name, for example "MAV_E_NOT_SCANNED". */
    public String getCodeName() {
        return codeName;
    }

    /** The adapter's or engine's own text, or null. */
    public String getAdapterText() {
        return adapterText;
    }
}
