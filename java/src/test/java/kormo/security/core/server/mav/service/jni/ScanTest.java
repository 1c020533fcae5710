package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;

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

    /** The report fields of a holder. */
    private static String report(MavHandle i) {
        return "len=" + i.m_CleanedLength + " job=" + i.m_JobID + " scanned=" + i.m_ScannedObjects
                + " clean=" + i.m_CleanObjects + " infections=" + i.m_Infections + " error="
                + i.m_lastError;
    }

    /** The adapter's last request: scan code, action, job, had bytes, length, had info, file. */
    private static String lastScan() {
        return Arrays.toString(TestPel.lastScan()) + " " + TestPel.lastObjectName();
    }

    @Test
    void cleanScansFillLengthAndReport() throws IOException {
        MavHandle i = instance(open());
        byte[] data = bytes("hello world, nothing to see");
        assertEquals(MAV_OK, Mavgate.pelScan(i, Mavgate.SCAN_BYTES, 0, "mem/obj.bin", data, 11, 77));
        assertEquals("len=11 job=77 scanned=1 clean=1 infections=0 error=null", report(i));
        assertEquals("[2, 2, 77, 1, 11, 1, 0] mem/obj.bin", lastScan());

        Path f = Files.createTempFile("kormo-jni", ".txt");
        try {
            Files.write(f, bytes("file content"));
            assertEquals(MAV_OK, Mavgate.pelScan(i, Mavgate.SCAN_FILE, 0, f.toString(), null, 0, 5));
            assertEquals("[4, 2, 5, 0, " + f.toString().length() + ", 1, 1] " + f, lastScan());
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
        // A verdict writes neither length nor report.
        assertEquals("len=456 job=123 scanned=0 clean=0 infections=0 error=MAV_E_VIRUS_FOUND",
                report(i));

        List<Infection> infections = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getInfections(i, infections));
        assertNull(i.m_lastError);
        assertEquals("[Infection[Test-Virus in obj.exe, id=42, job=9, size=68, repairable=true], "
                + "Infection[Other in obj2.exe, id=43, job=9, size=10, repairable=false]]",
                infections.toString());
        assertEquals("found _here_", infections.get(0).getFreeText());
        assertEquals("<later>", infections.get(1).getFreeText());
        List<ScanError> errors = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getScanErrors(i, errors));
        assertEquals("[ScanError[inner.zip: -7 encrypted, job=9, size=300]]", errors.toString());
        List<ContentInfo> content = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getContentInfos(i, content));
        assertEquals("[ContentInfo[obj.exe: application/x-dosexec (exe), size=68]]",
                content.toString());
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
        assertArrayEquals(bytes("CLEAN-bytes!"), data);
        assertEquals(12345, i.m_CleanedLength);
        assertEquals("MAV_E_CLEAN_OK", i.m_lastError);
    }

    @Test
    void tenThousandInfectionsBecomeObjectsAndAnExceptionEndsTheWalk() {
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
        assertEquals("V9999 t9999", last.getVirusName() + " " + last.getFreeText());

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
        list.clear();  // the bridge is still usable afterwards
        assertEquals(MAV_OK, Mavgate.getInfections(i, list));
        assertEquals(10000, list.size());
    }

    @Test
    void lengthBeyondTheArrayIsRefused() {
        MavHandle i = instance(open());
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.pelScan(i, 2, 0, "x", new byte[4], 5, 0));
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.pelScan(i, 2, 0, "x", new byte[4], -1, 0));
        assertEquals("MAV_E_INVALID_PARAM", i.m_lastError);
        assertEquals(0, TestPel.calls(TestPel.SCAN));
    }
}
