package kormo.security.core.server.mav.scanner;

import java.util.List;
import kormo.security.core.server.mav.api.Infection;
import kormo.security.core.server.mav.api.ScanError;

/** The immutable outcome of one scan that an engine carried out. */
public final class ScanResult {
    private final String objectName;
    private final Verdict verdict;
    private final int code;
    private final List<Infection> infections;
    private final List<ScanError> scanErrors;
    private final String contentType;

    ScanResult(String objectName, int code, List<Infection> infections,
            List<ScanError> scanErrors, String contentType) {
        this.objectName = objectName;
        this.verdict = Verdict.of(code);
        this.code = code;
        this.infections = List.copyOf(infections);
        this.scanErrors = List.copyOf(scanErrors);
        this.contentType = contentType;
    }

    public String getObjectName() {
        return objectName;
    }

    public Verdict getVerdict() {
        return verdict;
    }

    /** True only when an engine scanned the object and found nothing. */
    public boolean isClean() {
        return verdict == Verdict.CLEAN;
    }

    /** The library's result code: 0 clean, -1 to -6 a finding. */
    public int getCode() {
        return code;
    }

    /** What was found, in the engine's order; empty when clean. */
    public List<Infection> getInfections() {
        return infections;
    }

    /** Problems the engine met on parts of the object. */
    public List<ScanError> getScanErrors() {
        return scanErrors;
    }

    /** The content type the engine reported (for example "text/plain"), or null. */
    public String getContentType() {
        return contentType;
    }

    @Override
    public String toString() {
        return objectName + ": " + verdict
                + (infections.isEmpty() ? "" : " " + infections.get(0).getVirusName());
    }
}
