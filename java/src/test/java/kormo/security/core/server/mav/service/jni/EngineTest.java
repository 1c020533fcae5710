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
        // Dates in milliseconds; the unsigned virus count widened.
        assertEquals("Engine[5.2 engine five, date=1000000000, viruses=4000000000, drivers=2]",
                e.toString());
        List<Driver> drivers = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getDrivers(i, drivers));
        assertEquals("[Driver[main.def 1.2, date=2000000, viruses=10], "
                + "Driver[extra.def 7.8, date=-5000, viruses=20]]", drivers.toString());
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
}
