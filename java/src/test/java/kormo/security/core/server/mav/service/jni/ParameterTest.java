package kormo.security.core.server.mav.service.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;

import java.util.ArrayList;
import java.util.List;
import kormo.security.core.server.mav.api.Parameter;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

class ParameterTest extends BridgeTestBase {
    private MavHandle h;

    @BeforeEach
    void adapterWithParameters() {
        TestPel.addParam(true, 5, TestPel.INT, "30");           // INITTIMEOUT
        TestPel.addParam(false, 113, TestPel.FLOAT, "7");       // SCANEXTRACT_RATIO
        TestPel.addParam(false, 114, TestPel.CHAR, "/var/log"); // SCANLOGPATH
        TestPel.addParam(false, 101, TestPel.BOOL, "1");        // SCANALLFILES
        h = open();
    }

    /** The parameter's text through getParameter on holder, "rc=N: ..." when refused. */
    private static String get(MavHandle holder, String name, String type) {
        Parameter p = new Parameter(name, type, null);
        int rc = Mavgate.getParameter(holder, p);
        return (rc == MAV_OK ? "" : "rc=" + rc + ": ") + p;
    }

    @Test
    void listCarriesTheValueOverTypesWithoutText() {
        assertEquals(4, h.m_NumberOfParameters);
        List<Parameter> list = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getParameters(h, list));
        assertEquals("[INITTIMEOUT(INT)=30, SCANEXTRACT_RATIO(FLOAT)=30, SCANLOGPATH(CHAR)=/var/log, "
                + "SCANALLFILES(BOOL)=true]", list.toString());
    }

    @Test
    void getChecksTheTypeText() {
        assertEquals("SCANLOGPATH(CHAR)=/var/log", get(h, "scanlogpath", "bool"));
        assertNull(h.m_lastError);
        assertEquals("INITTIMEOUT(INT)=30", get(h, "INITTIMEOUT", "int"));
        assertEquals("rc=19: INITTIMEOUT(CHAR)=null", get(h, "INITTIMEOUT", "CHAR"));
        assertEquals("MAV_E_INVALID_PARAM_TYPE", h.m_lastError);
        assertEquals(MAV_E_INVALID_PARAM_TYPE,
                Mavgate.getParameter(h, new Parameter("INITTIMEOUT", null, null)));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameter(h, new Parameter(null, "INT", null)));
        assertEquals(MAV_E_PARAM_UNSUPPORTED,
                Mavgate.getParameter(h, new Parameter("SCANLIMIT", "INT", null)));
    }

    @Test
    void setResetDefaultsAndInstanceCopies() {
        assertEquals(MAV_OK, Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", "45")));
        assertEquals("INITTIMEOUT(INT)=45", get(h, "INITTIMEOUT", "INT"));
        assertEquals(MAV_E_INVALID_PARAM_TYPE,
                Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "CHAR", "46")));
        assertEquals("INITTIMEOUT(INT)=45", get(h, "INITTIMEOUT", "INT"));
        // A null value resets to the adapter's default.
        assertEquals(MAV_OK, Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", null)));
        assertEquals("INITTIMEOUT(INT)=30", get(h, "INITTIMEOUT", "INT"));
        Mavgate.setParameter(h, new Parameter("SCANLOGPATH", "CHAR", "/tmp/other"));
        assertEquals(MAV_OK, Mavgate.setDefaultConfig(h));
        assertEquals("SCANLOGPATH(CHAR)=/var/log", get(h, "SCANLOGPATH", "CHAR"));

        // An instance changes only its own copy.
        MavHandle i = instance(h);
        assertEquals(4, i.m_NumberOfParameters);
        assertEquals(MAV_OK, Mavgate.setParameter(i, new Parameter("INITTIMEOUT", "INT", "99")));
        assertEquals("INITTIMEOUT(INT)=99", get(i, "INITTIMEOUT", "INT"));
        assertEquals("INITTIMEOUT(INT)=30", get(h, "INITTIMEOUT", "INT"));
    }
}
