package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;

import org.junit.jupiter.api.Test;

class LifecycleTest extends BridgeTestBase {

    /** The adapter fields of a holder and its error fields. */
    private static String info(MavHandle h) {
        return h.m_VendorPelName + "|" + h.m_VendorInfoText + "|" + h.m_MajPelVersion + "."
                + h.m_MinPelVersion + "|" + h.m_NumberOfParameters + "|" + h.m_lastError + "|"
                + h.m_lastErrorDescription;
    }

    @Test
    void initFillsTheHolderAndEndClearsIt() {
        TestPel.setAdapterInfo(4711, 0, 2, 3, 7, "Vendor X", "adapterX");
        TestPel.addParam(true, 5, TestPel.INT, "30");
        TestPel.addParam(false, 101, TestPel.BOOL, "1");
        MavHandle h = new MavHandle();
        h.m_lastError = "stale";
        h.m_lastErrorDescription = "stale";
        assertEquals(MAV_OK, Mavgate.initPEL(PEL, h));
        track(h, false);
        assertNotEquals(0, h.m_Handle);
        assertEquals("adapterX|Vendor X|3.7|2|null|null", info(h));
        assertEquals(MAV_OK, Mavgate.endPEL(h));
        assertEquals(0, h.m_Handle);
        assertEquals("null|null|0.0|0|null|null", info(h));
        assertEquals(1, TestPel.calls(TestPel.CLEANUP));
    }

    @Test
    void failedStartsReportAndEndTheHandle() {
        // The adapter's message goes into both fields; a fresh start works after.
        TestPel.fail(TestPel.STARTUP, 9, null);
        MavHandle h = new MavHandle();
        assertEquals(9, Mavgate.initPEL(PEL, h));
        assertEquals(0, h.m_Handle);
        String text = "Global adapter initialization in PelStartup failed. Please contact PEL vendor.";
        assertEquals(text + "|" + text, h.m_lastError + "|" + h.m_lastErrorDescription);
        TestPel.fail(TestPel.STARTUP, 0, null);
        open();

        // No adapter information: the code's name and description; the handle
        // was ended, so the adapter went through its clean-up.
        TestPel.reset();
        TestPel.setNoAdapterInfo(true);
        MavHandle none = new MavHandle();
        assertEquals(MAV_E_INVALID_HANDLE, Mavgate.initPEL(PEL, none));
        assertEquals(0, none.m_Handle);
        assertEquals("MAV_E_INVALID_HANDLE", none.m_lastError);
        assertNotNull(none.m_lastErrorDescription);
        assertNotEquals(none.m_lastError, none.m_lastErrorDescription);
        assertEquals(1, TestPel.calls(TestPel.CLEANUP));

        TestPel.reset();
        assertEquals(MAV_E_NULL_PARAM, Mavgate.initPEL(PEL, null));
        assertEquals(0, TestPel.calls(TestPel.STARTUP));
    }

    @Test
    void endWhileAnInstanceIsOutIsRefusedAndKeepsTheHolder() {
        MavHandle h = open();
        instance(h);
        long handle = h.m_Handle;
        assertEquals(MAV_E_IN_PROGRESS, Mavgate.endPEL(h));
        assertEquals(handle, h.m_Handle);
        assertEquals("MAV_E_IN_PROGRESS", h.m_lastError);
        assertEquals("testpel", h.m_VendorPelName);
    }

    @Test
    void reloadRetriesUntilTheInstanceIsBack() throws InterruptedException {
        MavHandle h = open();
        MavHandle i = instance(h);
        Thread release = new Thread(() -> {
            try {
                Thread.sleep(1200);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            Mavgate.freeInstance(i);
        });
        release.start();
        // In progress while the instance is out; retried until it is back.
        assertEquals(MAV_OK, Mavgate.reloadPEL(h));
        release.join();
        assertEquals(0, i.m_Handle);
        assertEquals(MAV_OK, Mavgate.reloadPEL(null));
    }
}
