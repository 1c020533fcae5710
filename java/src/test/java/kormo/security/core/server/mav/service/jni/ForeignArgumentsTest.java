package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.util.ArrayList;
import java.util.List;
import kormo.security.core.server.mav.api.Parameter;
import org.junit.jupiter.api.Test;

/** Null, foreign and half-made arguments: codes, never a crash or a JNI warning. */
class ForeignArgumentsTest extends BridgeTestBase {

    /** Has the error fields but a handle of the wrong type. */
    static final class IntHandleHolder {
        int m_Handle = 1;
        String m_lastError;
        String m_lastErrorDescription;
    }

    @Test
    void nullHolders() {
        List<Object> list = new ArrayList<>();
        Parameter p = new Parameter("INITTIMEOUT", "INT", "1");
        assertEquals(MAV_E_NULL_PARAM, Mavgate.endPEL(null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.createInstance(null, new MavHandle()));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.createInstance(new MavHandle(), null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.freeInstance(null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.setPoolSize(null, 1));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.freePool(null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.loadPool(null, 1, true));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.pelScan(null, 2, 0, "x", new byte[1], 1, 0));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getInstanceInfo(null, 2, list));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getInfections(null, list));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameters(null, list));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameter(null, p));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.setParameter(null, p));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.setDefaultConfig(null));
        assertNull(Mavgate.getEngine(null));
        assertEquals(0, list.size());
    }

    @Test
    void nullListsParametersAndNames() {
        MavHandle i = instance(open());
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getInfections(i, null));
        assertEquals("MAV_E_NULL_PARAM", i.m_lastError);
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameters(i, null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameter(i, null));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.setParameter(i, null));
        // A file scan needs a name.
        assertEquals(MAV_E_NULL_PARAM, Mavgate.pelScan(i, 4, 0, null, null, 0, 0));
        // Not a list: no add method.
        Mavgate.pelScan(i, 2, 0, "x", new byte[] {1}, 1, 0);
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getContentInfos(i, new Object()));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameters(i, "not a list"));
        // Not a parameter: no name field.
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameter(i, "not a parameter"));
    }

    @Test
    void holdersWithoutTheFields() {
        List<Object> list = new ArrayList<>();
        for (Object holder : new Object[] {"a string", new Object(), new IntHandleHolder()}) {
            // The handle counts as 0 and the C side answers for it.
            assertEquals(MAV_OK, Mavgate.endPEL(holder));
            assertEquals(MAV_OK, Mavgate.freeInstance(holder));
            assertEquals(MAV_E_INVALID_HANDLE, Mavgate.createInstance(holder, new MavHandle()));
            assertEquals(MAV_E_INVALID_HANDLE, Mavgate.pelScan(holder, 2, 0, "x", null, 0, 0));
            assertEquals(MAV_E_NULL_PARAM, Mavgate.getInfections(holder, list));
            assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameters(holder, list));
            assertEquals(MAV_E_NULL_PARAM,
                    Mavgate.getParameter(holder, new Parameter("INITTIMEOUT", "INT", null)));
            assertEquals(MAV_E_NULL_PARAM,
                    Mavgate.setParameter(holder, new Parameter("INITTIMEOUT", "INT", "1")));
            assertEquals(MAV_E_NULL_PARAM, Mavgate.setDefaultConfig(holder));
            assertEquals(3, Mavgate.getErrorInfo(holder, 3));
            assertNull(Mavgate.getEngine(holder));
        }
        IntHandleHolder wrongType = new IntHandleHolder();
        Mavgate.getErrorInfo(wrongType, 3);
        assertEquals("MAV_E_INVALID_PARAM", wrongType.m_lastError);
        assertEquals(1, wrongType.m_Handle);
        assertEquals(0, list.size());
    }

    @Test
    void aHandleJavaCannotHoldIsNotKept() {
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.initPEL(PEL, "a string"));
        assertEquals(1, TestPel.calls(TestPel.CLEANUP));

        MavHandle h = open();
        IntHandleHolder wrongType = new IntHandleHolder();
        assertEquals(MAV_E_INVALID_PARAM, Mavgate.createInstance(h, wrongType));
        assertEquals("MAV_E_INVALID_PARAM", wrongType.m_lastError);
        assertEquals(0, TestPel.liveInits());
        // Nothing is left handed out: the handle ends.
    }

    @Test
    void staleHandlesAreRefused() {
        MavHandle h = open();
        MavHandle i = instance(h);
        long stale = i.m_Handle;
        assertEquals(MAV_OK, Mavgate.freeInstance(i));
        i.m_Handle = stale;
        List<Object> list = new ArrayList<>();
        assertEquals(MAV_E_INVALID_HANDLE, Mavgate.pelScan(i, 2, 0, "x", new byte[] {1}, 1, 0));
        assertEquals(MAV_E_INVALID_HANDLE, Mavgate.getInfections(i, list));
        assertNull(Mavgate.getEngine(i));
        assertEquals(MAV_E_INVALID_HANDLE, i.m_rc);
        i.m_Handle = 0;
    }
}
