package kormo.security.core.server.mav.api;

/**
 * An adapter parameter: name, type name ("BOOL", "INT", "CHAR", ...) and value
 * as text. The same object serves as request and answer of
 * {@code Mavgate.getParameter} and {@code Mavgate.setParameter}: the native
 * side reads and writes its three fields by name.
 */
public final class Parameter {
    private String m_ParameterName;
    private String m_ParameterType;
    private String m_ParameterValue;

    /**
     * @param name parameter name, for example "SCANLIMIT"
     * @param type type name, for example "INT"; null or unknown types are refused
     * @param value value text; null resets the parameter to its default on set
     */
    public Parameter(String name, String type, String value) {
        this.m_ParameterName = name;
        this.m_ParameterType = type;
        this.m_ParameterValue = value;
    }

    public String getName() {
        return m_ParameterName;
    }

    public String getType() {
        return m_ParameterType;
    }

    public String getValue() {
        return m_ParameterValue;
    }

    @Override
    public String toString() {
        return m_ParameterName + "(" + m_ParameterType + ")=" + m_ParameterValue;
    }
}
