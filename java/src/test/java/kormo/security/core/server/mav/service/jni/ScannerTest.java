package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.*;

import java.io.ByteArrayInputStream;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;
import kormo.security.core.server.mav.scanner.ScanException;
import kormo.security.core.server.mav.scanner.ScanResult;
import kormo.security.core.server.mav.scanner.Scanner;
import kormo.security.core.server.mav.scanner.Verdict;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The idiomatic scanner API over the test adapter. */
class ScannerTest {
    static final Path PEL = Path.of(TestPel.PATH);
    @TempDir Path dir;

    @BeforeEach
    void resetAdapter() {
        TestPel.reset();
    }

    @Test
    void verdictsComeWithWhatWasFound() throws Exception {
        try (Scanner s = Scanner.open(PEL)) {
            ScanResult clean = s.scan("abc".getBytes());
            assertTrue(clean.isClean() && clean.getInfections().isEmpty());
            TestPel.scriptInfection("Test.Virus", "upload", 7, false, 3, "free");
            TestPel.scriptRc(-2);  // MAV_E_VIRUS_FOUND
            ScanResult bad = s.scan("abc".getBytes(), "upload");
            assertEquals(Verdict.INFECTED + " Test.Virus",
                    bad.getVerdict() + " " + bad.getInfections().get(0).getVirusName());
            assertThrows(UnsupportedOperationException.class, () -> bad.getInfections().clear());
        }
    }

    @Test
    void failuresThrowWithCodeAndNameNeverClean() throws Exception {
        try (Scanner s = Scanner.open(PEL)) {
            TestPel.scriptScanError("upload", 14, "limit reached", 3);
            TestPel.scriptRc(14);
            ScanException e = assertThrows(ScanException.class, () -> s.scan(new byte[3], "upload"));
            assertEquals("14 MAV_E_NOT_SCANNED limit reached",
                    e.getCode() + " " + e.getCodeName() + " " + e.getAdapterText());
        }
        Scanner closed = Scanner.open(PEL);
        closed.close();
        closed.close();
        assertEquals(4, assertThrows(ScanException.class, () -> closed.scan(new byte[1])).getCode());
        assertEquals("MAV_E_PEL_LOAD_FAILED", assertThrows(ScanException.class,
                () -> Scanner.open(dir.resolve("missing.so"))).getCodeName());
    }

    @Test
    void everySourceReachesTheEngineWhole() throws Exception {
        try (Scanner s = Scanner.open(PEL)) {
            ByteBuffer b = ByteBuffer.wrap("xxhello".getBytes());
            b.position(2);
            s.scan(b, "buffer");
            assertEquals(2, b.position());
            assertTrue(TestPel.lastScan().startsWith("2 2 1 1 5 "), TestPel.lastScan());
            Path f = Files.write(dir.resolve("f.txt"), "data".getBytes());
            s.scan(f);
            assertTrue(TestPel.lastScan().endsWith(" 1 " + f), TestPel.lastScan());
            s.scan(new ByteArrayInputStream(new byte[10]), "small");
            assertTrue(TestPel.lastScan().startsWith("2 "), TestPel.lastScan());
            ScanResult big = s.scan(new ByteArrayInputStream(new byte[3 << 20]), "big");
            String[] last = TestPel.lastScan().split(" ", 8);
            assertEquals("big 4", big.getObjectName() + " " + last[0]);
            assertFalse(Files.exists(Path.of(last[7])), "temporary file left");
        }
    }

    @Test
    void parametersAndVersion() throws Exception {
        TestPel.addParam(false, 107, TestPel.INT, "100");  // SCANLIMIT
        try (Scanner s = Scanner.open(PEL, Map.of("SCANLIMIT", "200"))) {
            String first = s.getParameter("scanlimit");
            s.setParameter("SCANLIMIT", "300");
            assertEquals("200 300", first + " " + s.getParameter("SCANLIMIT"));
            assertEquals(20, assertThrows(ScanException.class,
                    () -> s.setParameter("SCANALLFILES", "1")).getCode());
        }
        assertTrue(Scanner.libraryVersion().matches("\\d+\\.\\d+\\.\\d+"));
    }
}
