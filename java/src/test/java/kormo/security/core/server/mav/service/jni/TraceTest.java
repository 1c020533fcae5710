package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

class TraceTest extends BridgeTestBase {
    // Traces name the Java method.
    private static final String NATIVE = "";
    private static final Path OLD = Paths.get("dev_MAV.old");

    @AfterEach
    void traceOff() {
        Mavgate.setTrace("jni-trace-off.log", 0);
    }

    private static String read(Path p) throws IOException {
        return new String(Files.readAllBytes(p), StandardCharsets.UTF_8);
    }

    @Test
    void traceFileGetsEntryAndExitLinesAndOneBackup() throws IOException {
        Path log = Paths.get("jni-trace.log").toAbsolutePath();
        assertEquals(MAV_OK, Mavgate.setTrace(log.toString(), 2 | Mavgate.TRACE_JNI));
        assertEquals(2 | Mavgate.TRACE_JNI, Mavgate.getTraceLevel());
        assertEquals(2 | Mavgate.TRACE_JNI, Mavgate.setTraceLevel(0));  // 0 only asks
        MavHandle h = new MavHandle();
        Mavgate.getErrorInfo(h, 3);
        Mavgate.pelScan(h, 2, 0, null, null, 0, 0);
        String first = read(log);
        assertTrue(first.contains(">> start >> " + NATIVE + "getErrorInfo("), first);
        assertTrue(first.contains("<<  end  << " + NATIVE + "getErrorInfo(MAV_RC==MAV_OK) \n"), first);
        assertTrue(first.contains("*JNI*"), first);
        // The scan's entry line has no closing parenthesis.
        assertTrue(first.matches("(?s).*>> start >> " + NATIVE
                + "pelScan\\((0x[0-9a-f]+|\\(nil\\)),(0x[0-9a-f]+|\\(nil\\)),0x[0-9a-f]+,2,0,\\(nil\\),\\(nil\\),0,0\n.*"),
                first);
        assertTrue(first.contains("Invalid NULL parameter for handle\n"), first);
        assertTrue(first.contains("<<  end  << " + NATIVE + "pelScan(MAV_RC==MAV_E_INVALID_HANDLE) \n"),
                first);

        assertEquals(MAV_OK, Mavgate.setTrace(log.toString(), 2 | Mavgate.TRACE_JNI));
        assertEquals(first, read(OLD).substring(0, first.length()));
        String second = read(log);
        assertFalse(second.contains("getErrorInfo"), second);

        assertEquals(MAV_OK, Mavgate.setTrace(log.toString(), 0));
        assertEquals(0, Mavgate.getTraceLevel());
        assertTrue(read(OLD).startsWith(second));
    }
}
