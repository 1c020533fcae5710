package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.util.ArrayList;
import java.util.List;
import kormo.security.core.server.mav.api.Driver;
import kormo.security.core.server.mav.api.Engine;
import org.junit.jupiter.api.Test;

class EngineTest extends BridgeTestBase {

    @Test
    void engineAndDriversOfAnInstance() {
        TestPel.setEngine(5, 2, "engine five", 1_000_000L, 4_000_000_000L);
        TestPel.clearDrivers();
        TestPel.addDriver("main.def", 1, 2, 2000L, 10, 3, 0);
        TestPel.addDriver("extra.def", 7, 8, -5L, 20, 4, 1);
        MavHandle i = instance(open());

        Engine e = Mavgate.getEngine(i);
        assertNotNull(e);
        assertEquals(0, i.m_rc);
        assertNull(i.m_lastError);
        assertEquals(5, e.getMajorVersion());
        assertEquals(2, e.getMinorVersion());
        assertEquals("engine five", e.getVersionText());
        assertEquals(1_000_000_000L, e.getDate());
        assertEquals(4_000_000_000L, e.getViruses(), "unsigned count widened");
        assertEquals(2, e.getDrivers());

        List<Driver> drivers = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getDrivers(i, drivers));
        assertEquals(2, drivers.size());
        assertEquals("main.def", drivers.get(0).getName());
        assertEquals(1, drivers.get(0).getMajorVersion());
        assertEquals(2, drivers.get(0).getMinorVersion());
        assertEquals(2_000_000L, drivers.get(0).getDate());
        assertEquals(10, drivers.get(0).getViruses());
        assertEquals("extra.def", drivers.get(1).getName());
        assertEquals(-5000L, drivers.get(1).getDate());
    }

    @Test
    void noEngineRecordOrNoHandle() {
        // Thread model 0: the handle itself holds no engine record.
        MavHandle h = open();
        assertNull(Mavgate.getEngine(h));
        assertEquals(MAV_E_INVALID_HANDLE, h.m_rc);
        assertEquals("MAV_E_INVALID_HANDLE", h.m_lastError);
        assertEquals(MAV_E_INVALID_HANDLE, Mavgate.getDrivers(h, new ArrayList<>()));

        MavHandle none = new MavHandle();
        assertNull(Mavgate.getEngine(none));
        assertEquals(MAV_E_NULL_PARAM, none.m_rc);
        assertNull(Mavgate.getEngine(null));
    }

    @Test
    void sharedEngineOfAThreadModelOneHandle() {
        TestPel.setAdapterInfo(4711, 1, 2, 1, 0, "Kormo Test", "testpel");
        MavHandle h = open();
        instance(h);
        Engine e = Mavgate.getEngine(h);
        assertNotNull(e);
        assertEquals(3, e.getMajorVersion());
    }
}
