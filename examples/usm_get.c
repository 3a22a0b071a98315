/*
 * An SNMPv3 manager over UDP: discovers the agent's engine ID, boots and time
 * (RFC 3414 4), localises the user's keys to it, sends an authPriv
 * GetRequest and prints the verified, decrypted answer as snmpget -On does.
 *
 *   usm_get --user U --auth DIGEST --auth-password-file F --priv CIPHER
 *           --priv-password-file F HOST:PORT OID...
 *
 * Exit status: 0 with one "OID = TYPE: value" line per OID; 1 with a message
 * on stderr and no value when the agent refuses the user, the answer's MAC or
 * time is wrong, or nothing comes back; 2 for bad usage.
 */
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "usm_mgr.h"

#define MAX_OID_CONTENT 128

static int Usage(const char* why) {
    return UsmUsage("usm_get", why,
                    "--user U --auth DIGEST --auth-password-file F --priv CIPHER --priv-password-file F "
                    "HOST:PORT OID...");
}

static void PrintTicks(uint64_t ticks) {
    unsigned long long days = ticks / 8640000, rest = ticks % 8640000;
    printf("Timeticks: (%llu) ", (unsigned long long)ticks);
    if (days == 1) {
        printf("1 day, ");
    } else if (days > 1) {
        printf("%llu days, ", days);
    }
    printf("%llu:%02llu:%02llu.%02llu\n", rest / 360000, rest / 6000 % 60, rest / 100 % 60, rest % 100);
}

static void PrintString(const BerItem* v) {
    int printable = 1;
    for (size_t i = 0; i < v->length; ++i) printable &= isprint(v->data[i]) || isspace(v->data[i]);
    if (printable) {
        printf("STRING: \"");
        for (size_t i = 0; i < v->length; ++i) {
            if (v->data[i] == '"' || v->data[i] == '\\') putchar('\\');
            putchar(v->data[i]);
        }
        printf("\"\n");
        return;
    }
    printf("Hex-STRING: ");
    for (size_t i = 0; i < v->length; ++i) printf("%02X %s", v->data[i], i % 16 == 15 && i + 1 < v->length ? "\n" : "");
    printf("\n");
}

static void PrintVarBind(const UsmVarBind* bind) {
    char name[1024], oid[1024];
    const BerItem* v = &bind->value;
    int64_t number = 0;
    uint64_t count = 0;
    int ok = 1;
    if (!BerOidText(&bind->name, name, sizeof name)) (void)snprintf(name, sizeof name, "(bad OID)");
    printf("%s = ", name);
    switch (v->tag) {
    case BER_OCTETS: PrintString(v); break;
    case BER_INTEGER:
        if ((ok = BerInteger(v, &number))) printf("INTEGER: %lld\n", (long long)number);
        break;
    case BER_COUNTER32:
    case BER_GAUGE32:
    case BER_COUNTER64:
        if ((ok = BerUnsigned(v, &count))) {
            printf("%s: %llu\n", v->tag == BER_COUNTER32 ? "Counter32" : v->tag == BER_GAUGE32 ? "Gauge32" : "Counter64",
                   (unsigned long long)count);
        }
        break;
    case BER_TIMETICKS:
        if ((ok = BerUnsigned(v, &count))) PrintTicks(count);
        break;
    case BER_IPADDRESS:
        if ((ok = v->length == 4)) printf("IpAddress: %u.%u.%u.%u\n", v->data[0], v->data[1], v->data[2], v->data[3]);
        break;
    case BER_OID:
        if ((ok = BerOidText(v, oid, sizeof oid))) printf("OID: %s\n", oid);
        break;
    case BER_NULL: printf("NULL\n"); break;
    case BER_NO_SUCH_OBJECT: printf("No Such Object available on this agent at this OID\n"); break;
    case BER_NO_SUCH_INSTANCE: printf("No Such Instance currently exists at this OID\n"); break;
    case BER_END_OF_MIB_VIEW: printf("No more variables left in this MIB View (It is past the end of the MIB tree)\n"); break;
    default: ok = 0;
    }
    if (!ok) {
        printf("Wrong Type (0x%02x): ", v->tag);
        PrintString(v);
    }
}
int main(int argc, char** argv) {
    UsmOptions options = {0};
    const char* address = NULL;
    static unsigned char oids[USM_MAX_VARBINDS][MAX_OID_CONTENT];
    size_t oidLengths[USM_MAX_VARBINDS], count = 0;
    for (int i = 1; i < argc; ++i) {
        const char** option = UsmOption(&options, argv[i]);
        if (option != NULL) {
            if (i + 1 == argc) return Usage("an option lacks its value");
            *option = argv[++i];
        } else if (strncmp(argv[i], "--", 2) == 0) {
            return Usage("unknown option");
        } else if (address == NULL) {
            address = argv[i];
        } else if (count == USM_MAX_VARBINDS) {
            return Usage("too many OIDs");
        } else if ((oidLengths[count] = BerOidFromText(argv[i], oids[count], MAX_OID_CONTENT)) == 0) {
            fprintf(stderr, "usm_get: %s: not a numeric OID\n", argv[i]);
            return 2;
        } else {
            ++count;
        }
    }
    if (!address || count == 0) return Usage("missing arguments");
    UsmUser user;
    memset(&user, 0, sizeof user);
    const char* why = UsmUserFromOptions(&user, &options);
    if (why != NULL) return Usage(why);

    UsmCrypto crypto;
    Agent agent = {.socket = -1};
    UsmPdu pdu, answer;
    memset(&pdu, 0, sizeof pdu);
    pdu.type = PDU_GET;
    pdu.count = count;
    for (size_t i = 0; i < count; ++i) {
        pdu.vars[i].name = (BerItem){BER_OID, oids[i], oidLengths[i]};
        pdu.vars[i].value = (BerItem){BER_NULL, NULL, 0};
    }
    int ok = UsmCryptoOpen(&crypto) && UsmUserFromFiles(&crypto, &user, options.authFile, options.privFile) &&
             UsmAgentOpen(&agent, "usm_get", address) &&
             UsmLocalise(&crypto, &user, agent.engineId, agent.engineIdLength) &&
             UsmRequest(&crypto, &user, &agent, &pdu, &answer);
    for (size_t i = 0; ok && i < answer.count; ++i) PrintVarBind(&answer.vars[i]);
    UsmAgentClose(&agent);
    UsmUserWipe(&user);
    UsmCryptoClose(&crypto);
    return ok ? 0 : 1;
}
