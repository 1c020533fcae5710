package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;

/** Fresh test adapter per test; every handle and instance a test opens is closed after it. */
abstract class BridgeTestBase {
    static final String PEL = TestPel.PATH;

    static final int MAV_OK = 0;
    static final int MAV_E_NULL_PARAM = 2;
    static final int MAV_E_INVALID_PARAM = 3;
    static final int MAV_E_INVALID_HANDLE = 4;
    static final int MAV_E_DRIVER_FAILED = 9;
    static final int MAV_E_IN_PROGRESS = 16;
    static final int MAV_E_INVALID_PARAM_TYPE = 19;
    static final int MAV_E_PARAM_UNSUPPORTED = 20;
    static final int MAV_E_NO_SCANINFO = 27;
    static final int MAV_E_CLEAN_OK = -1;
    static final int MAV_E_VIRUS_FOUND = -2;

    private final List<MavHandle> handles = new ArrayList<>();
    private final List<MavHandle> instances = new ArrayList<>();

    @BeforeEach
    void resetAdapter() {
        TestPel.reset();
    }

    @AfterEach
    void closeAll() {
        for (MavHandle i : instances) {
            if (i.m_Handle != 0) {
                assertEquals(MAV_OK, Mavgate.freeInstance(i), "freeInstance: " + i.m_lastError);
            }
        }
        for (MavHandle h : handles) {
            if (h.m_Handle != 0) {
                Mavgate.freePool(h);
                assertEquals(MAV_OK, Mavgate.endPEL(h), "endPEL: " + h.m_lastError);
            }
        }
    }

    /** A started handle of the test adapter. */
    MavHandle open() {
        MavHandle h = new MavHandle();
        assertEquals(MAV_OK, Mavgate.initPEL(PEL, h), () -> "initPEL: " + h.m_lastError);
        handles.add(h);
        return h;
    }

    /** An instance of h whose holder asks for scan reports (and thereby results). */
    MavHandle instance(MavHandle h) {
        MavHandle i = new MavHandle(true);
        assertEquals(MAV_OK, Mavgate.createInstance(h, i), () -> "createInstance: " + i.m_lastError);
        instances.add(i);
        return i;
    }

    /** Closes h and its instances after the test. */
    void track(MavHandle handleOrInstance, boolean isInstance) {
        (isInstance ? instances : handles).add(handleOrInstance);
    }
}
