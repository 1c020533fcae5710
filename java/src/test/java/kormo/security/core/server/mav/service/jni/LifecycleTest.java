package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

class LifecycleTest extends BridgeTestBase {

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
        assertEquals("adapterX", h.m_VendorPelName);
        assertEquals("Vendor X", h.m_VendorInfoText);
        assertEquals(3, h.m_MajPelVersion);
        assertEquals(7, h.m_MinPelVersion);
        assertEquals(2, h.m_NumberOfParameters);
        assertNull(h.m_lastError);
        assertNull(h.m_lastErrorDescription);

        assertEquals(MAV_OK, Mavgate.endPEL(h));
        assertEquals(0, h.m_Handle);
        assertNull(h.m_VendorPelName);
        assertNull(h.m_VendorInfoText);
        assertEquals(0, h.m_MajPelVersion);
        assertEquals(0, h.m_MinPelVersion);
        assertEquals(0, h.m_NumberOfParameters);
        assertEquals(1, TestPel.calls(TestPel.CLEANUP));
    }

    @Test
    void failedStartPutsTheAdapterMessageIntoBothFieldsAndEndsTheHandle() {
        TestPel.fail(TestPel.STARTUP, 9, null);
        MavHandle h = new MavHandle();
        assertEquals(9, Mavgate.initPEL(PEL, h));
        assertEquals(0, h.m_Handle);
        assertEquals("Global adapter initialization in PelStartup failed. Please contact PEL vendor.",
                h.m_lastError);
        assertEquals(h.m_lastError, h.m_lastErrorDescription);

        // Nothing of the failed start is left: a fresh start works.
        TestPel.fail(TestPel.STARTUP, 0, null);
        open();
    }

    @Test
    void missingAdapterInfoGivesInvalidHandleWithNameAndDescription() {
        TestPel.setNoAdapterInfo(true);
        MavHandle h = new MavHandle();
        assertEquals(MAV_E_INVALID_HANDLE, Mavgate.initPEL(PEL, h));
        assertEquals(0, h.m_Handle);
        assertEquals("MAV_E_INVALID_HANDLE", h.m_lastError);
        assertNotNull(h.m_lastErrorDescription);
        assertNotEquals(h.m_lastError, h.m_lastErrorDescription);
        // The handle was ended: the adapter went through its clean-up.
        assertEquals(1, TestPel.calls(TestPel.CLEANUP));
    }

    @Test
    void initWithANullHolderStartsNothing() {
        assertEquals(MAV_E_NULL_PARAM, Mavgate.initPEL(PEL, null));
        assertEquals(0, TestPel.calls(TestPel.STARTUP));
    }

    @Test
    void reloadOneHandleAndAll() {
        MavHandle h = open();
        MavHandle i = instance(h);
        assertEquals(MAV_OK, Mavgate.freeInstance(i));
        h.m_lastError = "stale";
        assertEquals(MAV_OK, Mavgate.reloadPEL(h));
        assertNull(h.m_lastError);
        assertEquals(MAV_OK, Mavgate.reloadPEL(null));
    }

    @Test
    void reloadRetriesEveryFailureUntilItSucceeds() throws InterruptedException {
        MavHandle h = open();
        MavHandle i = instance(h);
        Thread release = new Thread(() -> {
            try {
                Thread.sleep(1500);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            Mavgate.freeInstance(i);
        });
        long start = System.nanoTime();
        release.start();
        // In progress while the instance is out, then retried once a second.
        assertEquals(MAV_OK, Mavgate.reloadPEL(h));
        long elapsedMs = (System.nanoTime() - start) / 1_000_000;
        release.join();
        assertEquals(0, i.m_Handle);
        assertTrue(elapsedMs >= 1500 && elapsedMs < 10_000, "took " + elapsedMs + " ms");
        assertNull(h.m_lastError);
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
    void errorInfoNamesAnyCode() {
        MavHandle h = new MavHandle();
        assertEquals(MAV_E_VIRUS_FOUND, Mavgate.getErrorInfo(h, MAV_E_VIRUS_FOUND));
        assertEquals("MAV_E_VIRUS_FOUND", h.m_lastError);
        assertNotNull(h.m_lastErrorDescription);
        assertEquals(MAV_OK, Mavgate.getErrorInfo(h, MAV_OK));
        assertNull(h.m_lastError);
        assertNull(h.m_lastErrorDescription);
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getErrorInfo(null, 5));
    }
}
