package kormo.security.core.server.mav.scanner;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import kormo.security.core.server.mav.api.ContentInfo;
import kormo.security.core.server.mav.api.Infection;
import kormo.security.core.server.mav.api.Parameter;
import kormo.security.core.server.mav.api.ScanError;
import kormo.security.core.server.mav.service.jni.MavHandle;
import kormo.security.core.server.mav.service.jni.Mavgate;

/**
 * One engine, ready to scan: an adapter started through libkormomav and one
 * scan instance of it.
 *
 * <pre>{@code
 * try (Scanner scanner = Scanner.open()) {            // the default adapter
 *     ScanResult r = scanner.scan(Path.of("upload.bin"));
 *     if (!r.isClean()) quarantine(r.getInfections());
 * } catch (ScanException e) {
 *     // not scanned: treat as unsafe
 * }
 * }</pre>
 *
 * <p>A verdict is only returned when the engine scanned the object; anything
 * else (a limit, an engine error, an unreadable object) throws {@link
 * ScanException}. Scans on one scanner are serialised; open one scanner per
 * thread to scan in parallel. The native library is loaded as {@link Mavgate}
 * does: from the system property {@code kormomav.library}, else from the
 * standard library path.
 */
public final class Scanner implements AutoCloseable {
    private static final int MAV_OK = 0;
    private static final int MAV_E_NO_SCANINFO = 27;
    /** Streams up to this size are scanned from memory, larger ones from a temporary file. */
    private static final int IN_MEMORY_LIMIT = 1 << 20;

    private final MavHandle adapter = new MavHandle();
    private final MavHandle instance = new MavHandle(true);
    private long jobId;

    private Scanner() {}

    /** The default adapter (or the one $PEL_LIB names). */
    public static Scanner open() throws ScanException {
        return open(null, Map.of());
    }

    /** The adapter in the given file. */
    public static Scanner open(Path adapter) throws ScanException {
        return open(adapter, Map.of());
    }

    /**
     * The adapter in the given file (null: the default), with parameters set
     * on it before its instance is made, for example
     * {@code Map.of("INITDRIVERDIRECTORY", "/var/lib/clamav")}.
     */
    public static Scanner open(Path adapter, Map<String, String> parameters) throws ScanException {
        Scanner s = new Scanner();
        int rc = Mavgate.initPEL(adapter == null ? null : adapter.toString(), s.adapter);
        if (rc != MAV_OK) {
            // A failed start leaves the adapter's own message in the holder.
            String text = s.adapter.m_lastError;
            Mavgate.getErrorInfo(s.adapter, rc);
            throw new ScanException(rc, s.adapter.m_lastError, s.adapter.m_lastErrorDescription, text);
        }
        try {
            for (Map.Entry<String, String> p : parameters.entrySet()) {
                set(s.adapter, p.getKey(), p.getValue());
            }
            check(s.instance, Mavgate.createInstance(s.adapter, s.instance));
        } catch (ScanException e) {
            s.close();
            throw e;
        }
        return s;
    }

    /** The loaded library's version, for example "1.1.0". */
    public static String libraryVersion() {
        return Mavgate.getVersion();
    }

    /** Sets a parameter of this scanner's instance from its text. */
    public synchronized void setParameter(String name, String value) throws ScanException {
        set(live(), name, value);
    }

    /** A parameter's current value as text. */
    public synchronized String getParameter(String name) throws ScanException {
        Parameter p = new Parameter(name, "BOOL", null);  // "BOOL" matches any type
        check(live(), Mavgate.getParameter(instance, p));
        return p.getValue();
    }

    public ScanResult scan(byte[] data) throws ScanException {
        return scan(data, "bytes");
    }

    /** Scans the bytes under the given object name. */
    public synchronized ScanResult scan(byte[] data, String name) throws ScanException {
        if (data == null) throw new NullPointerException("data");
        return finish(name, Mavgate.pelScan(live(), Mavgate.SCAN_BYTES, Mavgate.ACTION_SCAN, name,
                data, data.length, ++jobId));
    }

    /** Scans the buffer's remaining bytes (its position is not moved). */
    public ScanResult scan(ByteBuffer buffer, String name) throws ScanException {
        ByteBuffer b = buffer.duplicate();
        byte[] bytes = new byte[b.remaining()];
        b.get(bytes);
        return scan(bytes, name);
    }

    /** Scans a file where it lies. */
    public synchronized ScanResult scan(Path file) throws ScanException {
        String name = file.toString();
        return finish(name, Mavgate.pelScan(live(), Mavgate.SCAN_FILE, Mavgate.ACTION_SCAN, name,
                null, 0, ++jobId));
    }

    /**
     * Scans what the stream gives until its end (the stream is not closed):
     * small streams from memory, larger ones through a temporary file that
     * only this user can read and that is removed afterwards.
     */
    public ScanResult scan(InputStream in, String name) throws ScanException, IOException {
        byte[] head = in.readNBytes(IN_MEMORY_LIMIT);
        if (head.length < IN_MEMORY_LIMIT) return scan(head, name);
        Path tmp = Files.createTempFile("kormomav-", ".scan",
                PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
        try {
            try (OutputStream out = Files.newOutputStream(tmp)) {
                out.write(head);
                in.transferTo(out);
            }
            ScanResult r = scan(tmp);
            return new ScanResult(name, r.getCode(), r.getInfections(), r.getScanErrors(),
                    r.getContentType());
        } finally {
            Files.deleteIfExists(tmp);
        }
    }

    /** Frees the instance and ends the adapter; a second call does nothing. */
    @Override
    public synchronized void close() {
        if (instance.m_Handle != 0) Mavgate.freeInstance(instance);
        if (adapter.m_Handle != 0) Mavgate.endPEL(adapter);
    }

    private MavHandle live() throws ScanException {
        if (instance.m_Handle == 0) {
            throw new ScanException(4, "MAV_E_INVALID_HANDLE", "the scanner is closed", null);
        }
        return instance;
    }

    private static void set(MavHandle h, String name, String value) throws ScanException {
        Parameter probe = new Parameter(name, "BOOL", null);  // learns the parameter's type
        check(h, Mavgate.getParameter(h, probe));
        check(h, Mavgate.setParameter(h, new Parameter(name, probe.getType(), value)));
    }

    private ScanResult finish(String name, int rc) throws ScanException {
        List<ScanError> errors = new ArrayList<>();
        if (rc > 0) {
            String codeName = instance.m_lastError;
            String description = instance.m_lastErrorDescription;
            Mavgate.getScanErrors(instance, errors);
            String text = errors.isEmpty() ? null : errors.get(0).getErrorText();
            throw new ScanException(rc, codeName, description, text);
        }
        List<Infection> infections = new ArrayList<>();
        List<ContentInfo> contents = new ArrayList<>();
        int r = Mavgate.getInfections(instance, infections);
        if (r == MAV_OK || r == MAV_E_NO_SCANINFO) r = Mavgate.getScanErrors(instance, errors);
        if (r == MAV_OK || r == MAV_E_NO_SCANINFO) r = Mavgate.getContentInfos(instance, contents);
        if (r != MAV_OK && r != MAV_E_NO_SCANINFO) check(instance, r);
        return new ScanResult(name, rc, infections, errors,
                contents.isEmpty() ? null : contents.get(0).getContentType());
    }

    private static void check(MavHandle h, int rc) throws ScanException {
        if (rc != MAV_OK) {
            throw new ScanException(rc, h.m_lastError, h.m_lastErrorDescription, null);
        }
    }
}
