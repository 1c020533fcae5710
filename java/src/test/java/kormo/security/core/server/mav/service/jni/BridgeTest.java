package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.*;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import kormo.security.core.server.mav.api.Infection;
import kormo.security.core.server.mav.api.Parameter;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * The bridge under the scanner API, on the test adapter: holders filled and
 * cleared, failed starts, array bounds, results as objects, null and foreign
 * arguments, parameters by type, pools and engines.
 */
class BridgeTest {
    static final String PEL = TestPel.PATH;
    static final int OK = 0, NULL_PARAM = 2, INVALID_PARAM = 3, INVALID_HANDLE = 4;
    static final int IN_PROGRESS = 16, CLEAN_OK = -1, VIRUS_FOUND = -2;

    /** Has the error fields, but a handle Java cannot hold a pointer in. */
    static final class IntHandle {
        int m_Handle = 1;
        String m_lastError;
        String m_lastErrorDescription;
    }

    /** Handles and the instances taken from them, in that order. */
    private final List<MavHandle> made = new ArrayList<>();

    @BeforeEach
    void resetAdapter() {
        TestPel.reset();
    }

    @AfterEach
    void closeAll() {  // the last made first: instances before their handle
        for (int n = made.size() - 1; n >= 0; n--) {
            MavHandle m = made.get(n);
            if (m.m_Handle != 0 && !m.m_ScanInfo) Mavgate.freePool(m);
            if (m.m_Handle == 0) continue;
            assertEquals(OK, m.m_ScanInfo ? Mavgate.freeInstance(m) : Mavgate.endPEL(m),
                    m.m_lastError);
        }
    }

    /** A handle, or with forHandle an instance of it whose holder asks for scan reports. */
    private MavHandle open(MavHandle forHandle) {
        MavHandle m = new MavHandle(forHandle != null);
        assertEquals(OK, forHandle == null ? Mavgate.initPEL(PEL, m)
                : Mavgate.createInstance(forHandle, m), () -> m.m_lastError);
        made.add(m);
        return m;
    }

    private static void allAre(int want, int... codes) {
        int[] wanted = new int[codes.length];
        Arrays.fill(wanted, want);
        assertArrayEquals(wanted, codes);
    }

    private static String info(MavHandle h) {
        return h.m_VendorPelName + "|" + h.m_VendorInfoText + "|" + h.m_MajPelVersion + "."
                + h.m_MinPelVersion + "|" + h.m_NumberOfParameters + "|" + h.m_lastError;
    }

    @Test
    void startFillsTheHolderEndClearsItARefusalKeepsIt() {
        TestPel.addParam(true, 5, TestPel.INT, "30");
        MavHandle h = new MavHandle();
        h.m_lastError = "stale";
        assertEquals("0 testpel|Kormo Test|1.0|1|null", Mavgate.initPEL(PEL, h) + " " + info(h));
        made.add(h);
        MavHandle i = open(h);
        assertEquals("16 testpel|Kormo Test|1.0|1|MAV_E_IN_PROGRESS true",
                Mavgate.endPEL(h) + " " + info(h) + " " + (h.m_Handle != 0));
        assertEquals("0 0 0 null|null|0.0|0|null 0 1", Mavgate.freeInstance(i) + " " + i.m_Handle
                + " " + Mavgate.endPEL(h) + " " + info(h) + " " + h.m_Handle + " "
                + TestPel.calls(TestPel.CLEANUP));
    }

    @Test
    void failedStartsKeepNothingAndSayWhy() {
        // The adapter's own message stands in both fields.
        TestPel.fail(TestPel.STARTUP, 9, null);
        MavHandle h = new MavHandle();
        assertEquals("9 0", Mavgate.initPEL(PEL, h) + " " + h.m_Handle);
        assertTrue(h.m_lastError.contains("PelStartup") && h.m_lastError.equals(
                h.m_lastErrorDescription), h.m_lastError + " / " + h.m_lastErrorDescription);
        // A holder that cannot take the handle: refused, and the handle ended
        // through the adapter's clean-up.
        TestPel.reset();
        assertEquals("3 2 1 1", Mavgate.initPEL(PEL, "a string") + " " + Mavgate.initPEL(PEL, null)
                + " " + TestPel.calls(TestPel.STARTUP) + " " + TestPel.calls(TestPel.CLEANUP));
        // An instance the holder cannot take is ended; a failed one reports on
        // the instance holder; a pool load carries the adapter's text.
        MavHandle cfg = open(null);
        IntHandle wrongType = new IntHandle();
        assertEquals("3 MAV_E_INVALID_PARAM 1", Mavgate.createInstance(cfg, wrongType) + " "
                + wrongType.m_lastError + " " + wrongType.m_Handle);
        cfg.m_lastError = "keep";
        TestPel.fail(TestPel.INIT, 9, "no engine today");
        MavHandle i = new MavHandle();
        assertEquals("9 0 MAV_E_DRIVER_FAILED keep", Mavgate.createInstance(cfg, i) + " "
                + i.m_Handle + " " + i.m_lastError + " " + cfg.m_lastError);
        assertEquals("9 no engine today|no engine today|0", Mavgate.loadPool(cfg, 2, true) + " "
                + cfg.m_lastError + "|" + cfg.m_lastErrorDescription + "|" + TestPel.liveInits());
    }

    @Test
    void scansFillTheReportAndCleanThroughTheArray() {
        MavHandle i = open(open(null));
        byte[] data = "hello world".getBytes();
        assertEquals("0 2 2 77 1 5 1 0 mem/obj.bin", Mavgate.pelScan(i, Mavgate.SCAN_BYTES, 0,
                "mem/obj.bin", data, 5, 77) + " " + TestPel.lastScan());
        String report = "len=5 job=77 scanned=1 clean=1 infections=0";
        assertEquals(report + " null", report(i));
        // A verdict writes neither length nor report.
        TestPel.scriptInfection("Test-Virus", "obj.exe", 42, true, 68, "found");
        TestPel.scriptScanError("inner.zip", -7, "encrypted", 300);
        TestPel.scriptRc(VIRUS_FOUND);
        assertEquals("-2 " + report + " MAV_E_VIRUS_FOUND",
                Mavgate.pelScan(i, 2, 0, "obj.exe", data, data.length, 9) + " " + report(i));
        List<Object> results = new ArrayList<>();
        allAre(OK, Mavgate.getInfections(i, results), Mavgate.getScanErrors(i, results),
                Mavgate.getContentInfos(i, results));
        assertEquals("[Infection[Test-Virus in obj.exe, id=42, job=9, size=68, repairable=true], "
                + "ScanError[inner.zip: -7 encrypted, job=9, size=300], "
                + "ContentInfo[obj.exe: application/octet-stream (exe), size=11]] null",
                results + " " + i.m_lastError);
        // Cleaned bytes come back into the array; the cleaned length stays.
        TestPel.scriptCleaned("CLEAN".getBytes());
        TestPel.scriptRc(CLEAN_OK);
        assertEquals("-1 CLEAN world 5", Mavgate.pelScan(i, 2, Mavgate.ACTION_CLEAN, "x", data,
                data.length, 1) + " " + new String(data) + " " + i.m_CleanedLength);
        // Lengths beyond the array never reach the adapter.
        int scans = TestPel.calls(TestPel.SCAN);
        assertEquals("3 3 MAV_E_INVALID_PARAM " + scans,
                Mavgate.pelScan(i, 2, 0, "x", new byte[4], 5, 0) + " "
                + Mavgate.pelScan(i, 2, 0, "x", new byte[4], -1, 0) + " " + i.m_lastError + " "
                + TestPel.calls(TestPel.SCAN));
    }

    private static String report(MavHandle i) {
        return "len=" + i.m_CleanedLength + " job=" + i.m_JobID + " scanned=" + i.m_ScannedObjects
                + " clean=" + i.m_CleanObjects + " infections=" + i.m_Infections + " "
                + i.m_lastError;
    }

    /** 10,000 result objects (local references freed as the walk goes), then
     *  a list whose add throws: the exception ends the walk (-Xcheck:jni
     *  flags any call made with it pending). */
    @Test
    void tenThousandResultsAndAnExceptionEndingTheWalk() {
        for (int n = 0; n < 10000; n++) {
            TestPel.scriptInfection("V" + n, "o" + n, n, false, n, "t" + n);
        }
        TestPel.scriptRc(VIRUS_FOUND);
        MavHandle i = open(open(null));
        List<Object> list = new ArrayList<>();
        assertEquals("-2 0", Mavgate.pelScan(i, 2, 0, "big", new byte[1], 1, 0) + " "
                + Mavgate.getInstanceInfo(i, Mavgate.INFO_INFECTIONS, list));
        Infection last = (Infection) list.get(9999);
        assertEquals("10000 V9999 o9999 9999 t9999", list.size() + " " + last.getVirusName() + " "
                + last.getObjectName() + " " + last.getObjectSize() + " " + last.getFreeText());
        List<Object> refusing = Collections.unmodifiableList(new ArrayList<>());
        assertThrows(UnsupportedOperationException.class, () -> Mavgate.getInfections(i, refusing));
    }

    @Test
    void nullAndForeignArgumentsAreCodes() {
        MavHandle h = open(null);
        MavHandle i = open(h);
        assertEquals(OK, Mavgate.pelScan(i, 2, 0, "x", new byte[1], 1, 0));  // results to ask for
        List<Object> list = new ArrayList<>();
        Parameter p = new Parameter("INITTIMEOUT", "INT", "1");
        allAre(NULL_PARAM, Mavgate.endPEL(null), Mavgate.createInstance(null, new MavHandle()),
                Mavgate.createInstance(h, null), Mavgate.freeInstance(null),
                Mavgate.setPoolSize(null, 1), Mavgate.freePool(null),
                Mavgate.loadPool(null, 1, true),
                Mavgate.pelScan(null, 2, 0, "x", new byte[1], 1, 0),
                Mavgate.getInstanceInfo(null, 2, list), Mavgate.getParameters(null, list),
                Mavgate.getParameter(null, p), Mavgate.setParameter(null, p),
                Mavgate.setDefaultConfig(null), Mavgate.getInfections(i, null),
                Mavgate.getParameters(i, null), Mavgate.getParameter(i, null),
                Mavgate.setParameter(i, null),
                Mavgate.pelScan(i, Mavgate.SCAN_FILE, 0, null, null, 0, 0),  // no file name
                Mavgate.getContentInfos(i, new Object()),                    // not a list
                Mavgate.getParameter(i, "not a parameter"));
        // Holders without the fields, or with a handle of the wrong type: the
        // handle reads as 0 and the library answers for it.
        for (Object holder : new Object[] {"a string", new Object(), new IntHandle()}) {
            assertArrayEquals(new int[] {OK, OK, INVALID_HANDLE, INVALID_HANDLE, 3},
                    new int[] {Mavgate.endPEL(holder), Mavgate.freeInstance(holder),
                        Mavgate.createInstance(holder, new MavHandle()),
                        Mavgate.pelScan(holder, 2, 0, "x", null, 0, 0),
                        Mavgate.getErrorInfo(holder, 3)});
            allAre(NULL_PARAM, Mavgate.getInfections(holder, list),
                    Mavgate.getParameters(holder, list),
                    Mavgate.getParameter(holder, p), Mavgate.setParameter(holder, p),
                    Mavgate.setDefaultConfig(holder));
            assertEquals("null 0",
                    Mavgate.getEngine(holder) + " " + (Mavgate.getPoolSize(holder) + list.size()));
        }
    }

    /** The parameter's text through getParameter, "rc=N: ..." when refused. */
    private static String get(MavHandle holder, String name, String type) {
        Parameter p = new Parameter(name, type, null);
        int rc = Mavgate.getParameter(holder, p);
        return (rc == OK ? "" : "rc=" + rc + ": ") + p;
    }

    @Test
    void parametersByType() {
        TestPel.addParam(true, 5, TestPel.INT, "30");            // INITTIMEOUT
        TestPel.addParam(false, 114, TestPel.CHAR, "/var/log");  // SCANLOGPATH
        MavHandle h = open(null);
        List<Parameter> list = new ArrayList<>();
        assertEquals(OK, Mavgate.getParameters(h, list));
        assertEquals("[INITTIMEOUT(INT)=30, SCANLOGPATH(CHAR)=/var/log]", list.toString());
        // "BOOL" reads any type; another type must match.
        assertEquals("SCANLOGPATH(CHAR)=/var/log", get(h, "scanlogpath", "bool"));
        assertEquals("rc=19: INITTIMEOUT(CHAR)=null MAV_E_INVALID_PARAM_TYPE",
                get(h, "INITTIMEOUT", "CHAR") + " " + h.m_lastError);
        allAre(19, Mavgate.getParameter(h, new Parameter("INITTIMEOUT", null, null)),
                Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "CHAR", "46")));
        // A null value is the default again.
        allAre(OK, Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", "99")),
                Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", null)));
        assertEquals("INITTIMEOUT(INT)=30", get(h, "INITTIMEOUT", "INT"));
    }

    @Test
    void poolsAndEngines() {
        MavHandle h = open(null);
        // Negative counts are refused with the code's name.
        assertEquals("0 3 3 MAV_E_INVALID_PARAM 2", Mavgate.setPoolSize(h, 2) + " "
                + Mavgate.loadPool(h, -1, true) + " " + Mavgate.setPoolSize(h, -5) + " "
                + h.m_lastError + " " + Mavgate.getPoolSize(h));
        assertEquals("0 3 3", Mavgate.loadPool(h, 3, false) + " " + Mavgate.getPoolSize(h) + " "
                + TestPel.liveInits());
        MavHandle i = open(h);
        assertEquals(IN_PROGRESS, Mavgate.freePool(h));  // a pooled instance is out
        // The date in milliseconds; thread model 0: the handle holds no engine.
        assertEquals("Engine[3.1 testpel engine 3.1, date=1577836800000, viruses=1000, drivers=1]",
                String.valueOf(Mavgate.getEngine(i)));
        assertEquals("null 4", Mavgate.getEngine(h) + " " + h.m_rc);
    }

    /** Reloads, driver lists and the trace file: one old generation kept, 0 only asks. */
    @Test
    void reloadDriversAndTrace() throws java.io.IOException {
        MavHandle h = open(null);
        assertEquals(0, Mavgate.reloadPEL(null));  // nothing out: at once
        MavHandle i = open(h);
        List<Object> drivers = new ArrayList<>();
        assertEquals("0 1", Mavgate.getDrivers(i, drivers) + " " + drivers.size());
        java.nio.file.Path log = java.nio.file.Files.createTempFile("jni", ".log");
        int level = 2 | Mavgate.TRACE_JNI;
        assertEquals("0 " + level + " " + level, Mavgate.setTrace(log.toString(), level) + " "
                + Mavgate.getTraceLevel() + " " + Mavgate.setTraceLevel(0));
        Mavgate.getErrorInfo(h, 3);
        assertEquals(0, Mavgate.setTrace(log.toString(), 0));
        String old = new String(java.nio.file.Files.readAllBytes(java.nio.file.Paths.get("dev_MAV.old")));
        assertTrue(old.contains(">> start >> getErrorInfo("), old);
        java.nio.file.Files.delete(log);
    }
}
