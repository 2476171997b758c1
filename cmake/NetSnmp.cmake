# Net-SNMP's client and agent libraries as imported targets (headers live in /usr/include).
find_path(NETSNMP_INCLUDE_DIR net-snmp/net-snmp-config.h REQUIRED)
find_library(NETSNMP_LIB netsnmp REQUIRED)
find_library(NETSNMP_AGENT_LIB netsnmpagent REQUIRED)
find_library(NETSNMP_MIBS_LIB netsnmpmibs REQUIRED)
add_library(NetSnmp::netsnmp INTERFACE IMPORTED)
target_link_libraries(NetSnmp::netsnmp INTERFACE ${NETSNMP_LIB})
add_library(NetSnmp::agent INTERFACE IMPORTED)
target_link_libraries(NetSnmp::agent INTERFACE ${NETSNMP_AGENT_LIB} ${NETSNMP_MIBS_LIB} NetSnmp::netsnmp)
