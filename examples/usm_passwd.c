/*
 * Changes an SNMPv3 user's passwords on an agent, as snmpusm passwd does:
 * sets usmUserOwnAuthKeyChange and/or usmUserOwnPrivKeyChange
 * (SNMP-USER-BASED-SM-MIB) to KeyChange values (RFC 3414 5) made from the
 * old and new localised keys and a fresh random value, in one authPriv
 * SetRequest under the old keys.
 *
 *   usm_passwd --user U --auth DIGEST --auth-password-file F --priv CIPHER
 *              --priv-password-file F [--new-auth-password-file F]
 *              [--new-priv-password-file F] HOST:PORT
 *
 * Exit status: 0 when the agent took every change (each named on stdout);
 * 1 with a message on stderr when it refused (a Set is all or nothing, so
 * nothing changed) or did not answer (then the old or the new passwords
 * hold, and it says so, as after a lost answer and a refused resend); 2 for
 * bad usage.
 */
#include <stdio.h>
#include <string.h>

#include "usm_mgr.h"

static int Usage(const char* why) {
    return UsmUsage("usm_passwd", why,
                    "--user U --auth DIGEST --auth-password-file F --priv CIPHER --priv-password-file F "
                    "[--new-auth-password-file F] [--new-priv-password-file F] HOST:PORT\n"
                    "  (at least one new password file)");
}

/* One KeyChange binding: column 7 (own auth) or 10 (own priv) of usmUserEntry, its value random | delta. oid
 * needs USM_MAX_ENTRY_OID bytes, value 2 * length. 1, or 0 with a message. */
static int KeyChange(UsmCrypto* crypto, const UsmUser* user, const Agent* agent, unsigned char column,
                     const unsigned char* oldKey, const unsigned char* newKey, size_t length, unsigned char* oid,
                     unsigned char* value, UsmVarBind* bind) {
    size_t oidLength = UsmUserEntryOid(column, agent->engineId, agent->engineIdLength, user->name, oid);
    bind->name = (BerItem){BER_OID, oid, oidLength};
    bind->value = (BerItem){BER_OCTETS, value, 2 * length};
    if (!UsmRandom(value, length)) {
        fprintf(stderr, "usm_passwd: no random bytes\n");
        return 0;
    }
    return UsmKeyChange(crypto, user, oldKey, value, length, newKey, value + length);
}

int main(int argc, char** argv) {
    UsmOptions options = {0};
    const char *newAuthFile = NULL, *newPrivFile = NULL, *address = NULL;
    for (int i = 1; i < argc; ++i) {
        const char** option = strcmp(argv[i], "--new-auth-password-file") == 0   ? &newAuthFile
                              : strcmp(argv[i], "--new-priv-password-file") == 0 ? &newPrivFile
                                                                                  : UsmOption(&options, argv[i]);
        if (option != NULL) {
            if (i + 1 == argc) return Usage("an option lacks its value");
            *option = argv[++i];
        } else if (strncmp(argv[i], "--", 2) == 0) {
            return Usage("unknown option");
        } else if (address != NULL) {
            return Usage("more than one agent");
        } else {
            address = argv[i];
        }
    }
    if (!address) return Usage("missing arguments");
    if (!newAuthFile && !newPrivFile) return Usage("no new password file");
    /* The same user twice: its keys now, and its keys to be. */
    static UsmUser user, next;
    const char* why = UsmUserFromOptions(&user, &options);
    if (why != NULL) return Usage(why);
    next = user;

    UsmCrypto crypto;
    Agent agent = {.socket = -1};
    static UsmPdu pdu, answer;
    static unsigned char oids[2][USM_MAX_ENTRY_OID], values[2][2 * USM_MAX_KEY];
    pdu.type = PDU_SET;
    int ok = UsmCryptoOpen(&crypto) && UsmUserFromFiles(&crypto, &user, options.authFile, options.privFile) &&
             UsmUserFromFiles(&crypto, &next, newAuthFile ? newAuthFile : options.authFile,
                              newPrivFile ? newPrivFile : options.privFile) &&
             UsmAgentOpen(&agent, "usm_passwd", address) &&
             UsmLocalise(&crypto, &user, agent.engineId, agent.engineIdLength) &&
             UsmLocalise(&crypto, &next, agent.engineId, agent.engineIdLength);
    /* The authentication key is the digest's size; the privacy key as long as its cipher reads, which is what
     * agents keep (snmpd cuts a longer localised key to it). */
    if (ok && newAuthFile) {
        ok = KeyChange(&crypto, &user, &agent, 7, user.authKey, next.authKey, user.keyLength, oids[pdu.count],
                       values[pdu.count], &pdu.vars[pdu.count]);
        ++pdu.count;
    }
    if (ok && newPrivFile) {
        ok = KeyChange(&crypto, &user, &agent, 10, user.privKey, next.privKey, UsmPrivNeeded(user.priv),
                       oids[pdu.count], values[pdu.count], &pdu.vars[pdu.count]);
        ++pdu.count;
    }
    if (ok && !UsmRequest(&crypto, &user, &agent, &pdu, &answer)) {
        ok = 0;
        /* A resend under the old keys is refused by an agent that took the first. */
        if (agent.resent) fprintf(stderr, "usm_passwd: the request went out again: the new passwords may hold\n");
    }
    if (ok && newAuthFile) printf("usm_passwd: %s's authentication password changed\n", user.name);
    if (ok && newPrivFile) printf("usm_passwd: %s's privacy password changed\n", user.name);
    UsmAgentClose(&agent);
    UsmWipe(values, sizeof values);
    UsmUserWipe(&user);
    UsmUserWipe(&next);
    UsmCryptoClose(&crypto);
    return ok ? 0 : 1;
}
