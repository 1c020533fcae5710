package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import org.junit.jupiter.api.Test;

class PoolTest extends BridgeTestBase {

    @Test
    void failedPelInitReportsOnTheHolderThatAsked() {
        MavHandle h = open();
        h.m_lastError = "keep";
        TestPel.fail(TestPel.INIT, 9, "no engine today");
        MavHandle i = new MavHandle();
        assertEquals(MAV_E_DRIVER_FAILED, Mavgate.createInstance(h, i));
        assertEquals(0, i.m_Handle);
        assertEquals("MAV_E_DRIVER_FAILED", i.m_lastError);
        assertEquals("keep", h.m_lastError);
        // A pool load carries the adapter's text in both fields.
        TestPel.fail(TestPel.INIT, 9, "driver file damaged");
        assertEquals(MAV_E_DRIVER_FAILED, Mavgate.loadPool(h, 2, true));
        assertEquals("driver file damaged|driver file damaged",
                h.m_lastError + "|" + h.m_lastErrorDescription);
        // Whatever was made is gone again, so the handle can end.
        TestPel.fail(TestPel.INIT, 0, null);
        assertEquals(0, TestPel.liveInits());
    }

    @Test
    void poolSizeLoadAndFree() {
        MavHandle h = open();
        assertEquals(0, Mavgate.getPoolSize(h));
        assertEquals(MAV_OK, Mavgate.setPoolSize(h, 2));
        assertEquals(2, Mavgate.getPoolSize(h));
        // Refusals carry the code's name and description.
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.loadPool(h, 1, false));
        assertEquals("MAV_E_INVALID_PARAM", h.m_lastError);
        assertNotEquals(h.m_lastError, h.m_lastErrorDescription);
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.loadPool(h, -1, true));
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.setPoolSize(h, -5));
        assertEquals(2, Mavgate.getPoolSize(h));

        assertEquals(MAV_OK, Mavgate.loadPool(h, 3, false));
        assertEquals(3, Mavgate.getPoolSize(h));
        assertEquals(3, TestPel.liveInits());
        // A pooled instance out: the pool cannot go.
        MavHandle i = instance(h);
        assertEquals(MAV_E_IN_PROGRESS, Mavgate.freePool(h));
        assertEquals("MAV_E_IN_PROGRESS", h.m_lastError);
        assertEquals(MAV_OK, Mavgate.freeInstance(i));
        assertEquals(MAV_OK, Mavgate.freePool(h));
        assertNull(h.m_lastError);
        assertEquals(0, TestPel.liveInits());
        assertEquals(0, Mavgate.getPoolSize(null));
        assertEquals(0, Mavgate.getPoolSize("not a holder"));
    }
}
