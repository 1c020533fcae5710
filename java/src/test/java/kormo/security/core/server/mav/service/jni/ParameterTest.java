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
        TestPel.addParam(true, 5, TestPel.INT, "30");          // INITTIMEOUT
        TestPel.addParam(false, 113, TestPel.FLOAT, "7");      // SCANEXTRACT_RATIO
        TestPel.addParam(false, 114, TestPel.CHAR, "/var/log"); // SCANLOGPATH
        TestPel.addParam(false, 101, TestPel.BOOL, "1");       // SCANALLFILES
        h = open();
    }

    private static String text(Parameter p) {
        return p.getName() + "/" + p.getType() + "/" + p.getValue();
    }

    @Test
    void listCarriesTheValueOverTypesWithoutText() {
        assertEquals(4, h.m_NumberOfParameters);
        List<Parameter> list = new ArrayList<>();
        assertEquals(MAV_OK, Mavgate.getParameters(h, list));
        assertEquals(4, list.size());
        assertEquals("INITTIMEOUT/INT/30", text(list.get(0)));
        assertEquals("SCANEXTRACT_RATIO/FLOAT/30", text(list.get(1)));
        assertEquals("SCANLOGPATH/CHAR//var/log", text(list.get(2)));
        assertEquals("SCANALLFILES/BOOL/true", text(list.get(3)));
    }

    @Test
    void getChecksTheTypeText() {
        Parameter any = new Parameter("scanlogpath", "bool", null);
        assertEquals(MAV_OK, Mavgate.getParameter(h, any));
        assertEquals("SCANLOGPATH/CHAR//var/log", text(any));
        assertNull(h.m_lastError);

        Parameter exact = new Parameter("INITTIMEOUT", "int", null);
        assertEquals(MAV_OK, Mavgate.getParameter(h, exact));
        assertEquals("INITTIMEOUT/INT/30", text(exact));

        Parameter wrong = new Parameter("INITTIMEOUT", "CHAR", null);
        assertEquals(MAV_E_INVALID_PARAM_TYPE, Mavgate.getParameter(h, wrong));
        assertEquals("MAV_E_INVALID_PARAM_TYPE", h.m_lastError);
        assertEquals("INITTIMEOUT/CHAR/null", text(wrong));
        assertEquals(MAV_E_INVALID_PARAM_TYPE,
                Mavgate.getParameter(h, new Parameter("INITTIMEOUT", null, null)));
        assertEquals(MAV_E_NULL_PARAM, Mavgate.getParameter(h, new Parameter(null, "INT", null)));
        assertEquals(MAV_E_PARAM_UNSUPPORTED,
                Mavgate.getParameter(h, new Parameter("SCANLIMIT", "INT", null)));
    }

    @Test
    void setResetAndDefaults() {
        assertEquals(MAV_OK, Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", "45")));
        Parameter p = new Parameter("INITTIMEOUT", "INT", null);
        Mavgate.getParameter(h, p);
        assertEquals("45", p.getValue());

        assertEquals(MAV_E_INVALID_PARAM_TYPE,
                Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "CHAR", "46")));
        Mavgate.getParameter(h, p);
        assertEquals("45", p.getValue());

        // A null value resets to the adapter's default.
        assertEquals(MAV_OK, Mavgate.setParameter(h, new Parameter("INITTIMEOUT", "INT", null)));
        Mavgate.getParameter(h, p);
        assertEquals("30", p.getValue());

        Mavgate.setParameter(h, new Parameter("SCANLOGPATH", "CHAR", "/tmp/other"));
        assertEquals(MAV_OK, Mavgate.setDefaultConfig(h));
        Parameter path = new Parameter("SCANLOGPATH", "CHAR", null);
        Mavgate.getParameter(h, path);
        assertEquals("/var/log", path.getValue());
    }

    @Test
    void anInstanceChangesOnlyItsOwnCopy() {
        MavHandle i = instance(h);
        assertEquals(4, i.m_NumberOfParameters);
        assertEquals(MAV_OK, Mavgate.setParameter(i, new Parameter("INITTIMEOUT", "INT", "99")));
        Parameter mine = new Parameter("INITTIMEOUT", "INT", null);
        Parameter handles = new Parameter("INITTIMEOUT", "INT", null);
        Mavgate.getParameter(i, mine);
        Mavgate.getParameter(h, handles);
        assertEquals("99", mine.getValue());
        assertEquals("30", handles.getValue());
    }
}
