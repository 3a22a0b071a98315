# pysnmp's agent or manager for usm_interop.sh, one user, both passwords alike.
# usage: usm_interop_pysnmp.py agent|get PORT USER AUTH PRIV PASSWORD [OID...]
import sys
from pysnmp.hlapi import *
from pysnmp.entity import config
from pysnmp.entity.rfc3413 import cmdrsp, context
from pysnmp.carrier.asyncore.dgram import udp

mode, port, user, auth, priv, pw, *oids = sys.argv[1:]
auth = getattr(config, 'usmHMAC' + {'MD5': 'MD5', 'SHA': 'SHA', 'SHA-224': '128SHA224', 'SHA-256': '192SHA256',
                                    'SHA-384': '256SHA384', 'SHA-512': '384SHA512'}[auth] + 'AuthProtocol')
# Our AES-192/256 are pysnmp's Blumenthal ones; our -C (Reeder) ones its plain usmAesCfb192/256.
priv = getattr(config, {'3DES': 'usm3DESEDEPrivProtocol', 'AES-192': 'usmAesBlumenthalCfb192Protocol',
                        'AES-256': 'usmAesBlumenthalCfb256Protocol', 'AES-192-C': 'usmAesCfb192Protocol',
                        'AES-256-C': 'usmAesCfb256Protocol'}[priv])
if mode == 'agent':
    engine = SnmpEngine()
    config.addTransport(engine, udp.domainName, udp.UdpTransport().openServerMode(('127.0.0.1', int(port))))
    config.addV3User(engine, user, auth, pw, priv, pw)
    config.addVacmUser(engine, 3, user, 'authPriv', (1, 3, 6))
    cmdrsp.GetCommandResponder(engine, context.SnmpContext(engine))
    engine.transportDispatcher.jobStarted(1)
    engine.transportDispatcher.runDispatcher()
else:
    error, status, _, binds = next(getCmd(SnmpEngine(), UsmUserData(user, pw, pw, auth, priv),
                                          UdpTransportTarget(('127.0.0.1', int(port)), timeout=2, retries=1),
                                          ContextData(), *[ObjectType(ObjectIdentity(o)) for o in oids]))
    print(error or status.prettyPrint() if error or status else '\n'.join(b.prettyPrint() for b in binds))
    sys.exit(1 if error or status else 0)
