"""A notification receiver built on pysnmp alone (no Net-SNMP code): listens on
127.0.0.1:PORT for SNMPv2c traps and informs (community public) and SNMPv3 ones (the user
given, authPriv with SHA and AES), and prints one JSON line per notification received:
{"varbinds": [[oid, type, value], ...]} with the OID numeric, the value an int or a text.
It prints "ready" once it listens. Run with /usr/bin/python3 (Debian's python3-pysnmp4).

    notify_receiver.py PORT [USER AUTHPASS PRIVPASS]
"""

import json
import sys

from pyasn1.type import univ
from pysnmp.carrier.asyncore.dgram import udp
from pysnmp.entity import config, engine
from pysnmp.entity.rfc3413 import ntfrcv
from pysnmp.proto import rfc1902


def value_of(v):
    if isinstance(v, univ.ObjectIdentifier):
        return "OID", ".".join(str(x) for x in v)
    if isinstance(v, (rfc1902.Integer, rfc1902.Integer32, rfc1902.TimeTicks, rfc1902.Counter32, rfc1902.Gauge32,
                      rfc1902.Unsigned32, rfc1902.Counter64)):
        return type(v).__name__, int(v)
    if isinstance(v, rfc1902.OctetString):
        return "OctetString", bytes(v).decode("utf-8", "replace")
    return type(v).__name__, v.prettyPrint()


def main():
    port = int(sys.argv[1])
    snmp_engine = engine.SnmpEngine()
    config.addTransport(snmp_engine, udp.domainName, udp.UdpTransport().openServerMode(("127.0.0.1", port)))
    config.addV1System(snmp_engine, "receiver-area", "public")
    if len(sys.argv) >= 5:
        config.addV3User(snmp_engine, sys.argv[2], config.usmHMACSHAAuthProtocol, sys.argv[3],
                         config.usmAesCfb128Protocol, sys.argv[4])

    def received(_engine, _state, _context_engine, _context_name, var_binds, _ctx):
        out = []
        for name, val in var_binds:
            kind, value = value_of(val)
            out.append([".".join(str(x) for x in name), kind, value])
        print(json.dumps({"varbinds": out}), flush=True)

    ntfrcv.NotificationReceiver(snmp_engine, received)
    snmp_engine.transportDispatcher.jobStarted(1)
    print("ready", flush=True)
    try:
        snmp_engine.transportDispatcher.runDispatcher()
    finally:
        snmp_engine.transportDispatcher.closeDispatcher()


if __name__ == "__main__":
    main()
