package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import kormo.security.core.server.mav.api.ContentInfo;
import kormo.security.core.server.mav.api.Infection;
import kormo.security.core.server.mav.api.ScanError;
import org.junit.jupiter.api.Test;

class ScanTest extends BridgeTestBase {

    private static byte[] bytes(String s) {
        return s.getBytes(StandardCharsets.UTF_8);
    }

    @Test
    void cleanByteScanFillsLengthAndReport() {
        MavHandle i = instance(open());
        byte[] data = bytes("hello world, nothing to see");
        assertEquals(MAV_OK, Mavgate.pelScan(i, Mavgate.SCAN_BYTES, 0, "mem/obj.bin", data, 11, 77));
        assertEquals(11, i.m_CleanedLength);
        assertEquals(77, i.m_JobID);
        assertEquals(1, i.m_ScannedObjects);
        assertEquals(1, i.m_CleanObjects);
        assertEquals(0, i.m_Infections);
        assertNull(i.m_lastError);
        long[] last = TestPel.lastScan();
        assertEquals(2, last[0]);
        assertEquals(77, last[2]);
        assertEquals(1, last[3], "bytes handed over");
        assertEquals(11, last[4]);
        assertEquals("mem/obj.bin", TestPel.lastObjectName());
    }

    @Test
    void fileScanPassesThePath() throws IOException {
        MavHandle i = instance(open());
        Path f = Files.createTempFile("kormo-jni", ".txt");
        try {
            Files.write(f, bytes("file content"));
            assertEquals(MAV_OK,
                    Mavgate.pelScan(i, Mavgate.SCAN_FILE, 0, f.toString(), null, 0, 5));
            long[] last = TestPel.lastScan();
            assertEquals(4, last[0]);
            assertEquals(1, last[6], "file existed");
            assertEquals(f.toString(), TestPel.lastObjectName());
            assertEquals(5, i.m_JobID);
        } finally {
            Files.delete(f);
        }
    }

    @Test
    void virusVerdictAndItsFindingsAsObjects() {
        TestPel.scriptClear();
        TestPel.scriptInfection("Test-Virus", "obj.exe", 42, true, 68, "found <here>");
        TestPel.scriptInfection("Other", "obj2.exe", 43, false, 10, "<later>");
        TestPel.scriptScanError("inner.zip", -7, "encrypted", 300);
        TestPel.scriptContent("obj.exe", "exe", "application/x-dosexec", "binary", 1, 68);
        TestPel.scriptRc(MAV_E_VIRUS_FOUND);
        MavHandle i = instance(open());
        i.m_JobID = 123;
        i.m_CleanedLength = 456;
        byte[] data = bytes("X5O!P%@AP");
        assertEquals(MAV_E_VIRUS_FOUND, Mavgate.pelScan(i, 2, 0, "obj.exe", data, data.length, 9));
        assertEquals("MAV_E_VIRUS_FOUND", i.m_lastError);
        // A verdict writes neither length nor report.
        assertEquals(123, i.m_JobID);
        assertEquals(456, i.m_CleanedLength);

        List<Infection> infections = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getInfections(i, infections));
        assertNull(i.m_lastError);
        assertEquals(2, infections.size());
        Infection first = infections.get(0);
        assertTrue(first.isRepairable());
        assertEquals(9, first.getJobId());
        assertEquals(42, first.getVirusId());
        assertEquals("Test-Virus", first.getVirusName());
        assertEquals("obj.exe", first.getObjectName());
        assertEquals(68, first.getObjectSize());
        assertEquals("found _here_", first.getFreeText());
        assertEquals("<later>", infections.get(1).getFreeText());

        List<ScanError> errors = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getScanErrors(i, errors));
        assertEquals(1, errors.size());
        assertEquals(-7, errors.get(0).getErrorCode());
        assertEquals("encrypted", errors.get(0).getErrorText());
        assertEquals("inner.zip", errors.get(0).getObjectName());
        assertEquals(300, errors.get(0).getObjectSize());

        List<ContentInfo> content = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getContentInfos(i, content));
        assertEquals(1, content.size());
        assertEquals("exe", content.get(0).getExtension());
        assertEquals("application/x-dosexec", content.get(0).getContentType());
        assertEquals("obj.exe", content.get(0).getObjectName());
    }

    @Test
    void cleaningCopiesTheBytesBackButKeepsTheCleanedLength() {
        TestPel.scriptClear();
        TestPel.scriptCleaned(bytes("CLEAN"));
        TestPel.scriptRc(MAV_E_CLEAN_OK);
        MavHandle i = instance(open());
        i.m_CleanedLength = 12345;
        byte[] data = bytes("dirty-bytes!");
        assertEquals(MAV_E_CLEAN_OK,
                Mavgate.pelScan(i, 2, Mavgate.ACTION_CLEAN, "x", data, data.length, 1));
        assertArrayEquals(bytes("CLEAN"), Arrays.copyOf(data, 5));
        assertEquals(12345, i.m_CleanedLength);
        assertEquals("MAV_E_CLEAN_OK", i.m_lastError);
    }

    @Test
    void tenThousandInfectionsBecomeTenThousandObjects() {
        TestPel.scriptClear();
        for (int n = 0; n < 10000; n++) {
            TestPel.scriptInfection("V" + n, "o" + n, n, false, n, "t" + n);
        }
        TestPel.scriptRc(MAV_E_VIRUS_FOUND);
        MavHandle i = instance(open());
        assertEquals(MAV_E_VIRUS_FOUND, Mavgate.pelScan(i, 2, 0, "big", bytes("x"), 1, 0));
        List<Object> list = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getInstanceInfo(i, Mavgate.INFO_INFECTIONS, list));
        assertEquals(10000, list.size());
        Infection last = (Infection) list.get(9999);
        assertEquals("V9999", last.getVirusName());
        assertEquals("t9999", last.getFreeText());
    }

    @Test
    void anExceptionFromTheListEndsTheWalk() {
        TestPel.scriptClear();
        for (int n = 0; n < 50; n++) {
            TestPel.scriptInfection("V" + n, "o", n, false, 1, null);
        }
        TestPel.scriptRc(MAV_E_VIRUS_FOUND);
        MavHandle i = instance(open());
        Mavgate.pelScan(i, 2, 0, "x", bytes("x"), 1, 0);
        int[] calls = {0};
        List<Object> refusing = new ArrayList<Object>() {
            @Override
            public boolean add(Object o) {
                calls[0]++;
                throw new IllegalStateException("full");
            }
        };
        assertThrows(IllegalStateException.class, () -> Mavgate.getInfections(i, refusing));
        assertEquals(1, calls[0]);
        // The bridge is still usable afterwards.
        List<Object> list = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getInfections(i, list));
        assertEquals(50, list.size());
    }

    @Test
    void resultsWithoutAScanOrOfUnknownKind() {
        MavHandle h = open();
        MavHandle i = instance(h);
        List<Object> list = new ArrayList<>();
        assertEquals(MAV_E_NO_SCANINFO, Mavgate.getInfections(i, list));
        assertEquals("MAV_E_NO_SCANINFO", i.m_lastError);

        list.add("sentinel");
        assertEquals(MAV_OK, Mavgate.getInstanceInfo(i, 3, list));
        assertNull(i.m_lastError);
        assertEquals(MAV_OK, Mavgate.getInstanceInfo(i, 16, list));
        assertEquals(1, list.size());

        // A clean scan has no infection list.
        assertEquals(MAV_OK, Mavgate.pelScan(i, 2, 0, "x", bytes("x"), 1, 0));
        assertEquals(MAV_E_NO_SCANINFO, Mavgate.getInfections(i, list));
        List<ContentInfo> content = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getContentInfos(i, content));
        assertEquals(1, content.size());

        // Without a report request the adapter hands back no result.
        i.m_ScanInfo = false;
        assertEquals(MAV_OK, Mavgate.pelScan(i, 2, 0, "x", bytes("x"), 1, 0));
        assertEquals(MAV_E_NO_SCANINFO, Mavgate.getContentInfos(i, content));
    }

    @Test
    void lengthBeyondTheArrayIsRefused() {
        MavHandle i = instance(open());
        int scans = TestPel.calls(TestPel.SCAN);
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.pelScan(i, 2, 0, "x", new byte[4], 5, 0));
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.pelScan(i, 2, 0, "x", new byte[4], -1, 0));
        assertEquals("MAV_E_INVALID_PARAM", i.m_lastError);
        assertEquals(scans, TestPel.calls(TestPel.SCAN));
    }
}
