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
#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "usm_ber.h"
#include "usm_sec.h"

#define ATTEMPTS 3
#define WAIT_MS 1000
#define TIME_WINDOW 150
#define MAX_OID_CONTENT 128

static unsigned char gOut[USM_MAX_MESSAGE], gIn[USM_MAX_MESSAGE + 1];
static unsigned char gPlain[USM_MAX_MESSAGE + 8], gCipher[USM_MAX_MESSAGE + 8];

typedef struct Agent {
    int socket;
    const char* address;
    unsigned char engineId[USM_MAX_ENGINE_ID];
    size_t engineIdLength;
    int64_t boots;
    int64_t time;           /* the agent's time when it was last heard from */
    struct timespec heard;  /* local clock then */
} Agent;

static int Usage(const char* why) {
    fprintf(stderr,
            "usm_get: %s\nusage: usm_get --user U --auth DIGEST --auth-password-file F --priv CIPHER "
            "--priv-password-file F HOST:PORT OID...\n  DIGEST: %s\n  CIPHER: %s\n",
            why, UsmAuthNames(), UsmPrivNames());
    return 2;
}

static double Seconds(const struct timespec* t) { return (double)t->tv_sec + (double)t->tv_nsec / 1e9; }

/* The agent's engine time now, from what it said last and the local clock since. */
static int64_t EngineTime(const Agent* agent) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return agent->time + (int64_t)(Seconds(&now) - Seconds(&agent->heard));
}

/* A UDP socket connected to HOST:PORT (port 161 when none is given), or -1. */
static int Connect(const char* address) {
    char host[256];
    const char* colon = strrchr(address, ':');
    const char* port = colon != NULL ? colon + 1 : "161";
    size_t hostLength = colon != NULL ? (size_t)(colon - address) : strlen(address);
    if (hostLength == 0 || hostLength >= sizeof host || *port == '\0') return -1;
    memcpy(host, address, hostLength);
    host[hostLength] = '\0';
    struct addrinfo hints, *found = NULL;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    if (getaddrinfo(host, port, &hints, &found) != 0 || found == NULL) return -1;
    int s = socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    /* A connected socket takes answers from this agent only. */
    if (s >= 0 && connect(s, found->ai_addr, found->ai_addrlen) != 0) {
        close(s);
        s = -1;
    }
    freeaddrinfo(found);
    return s;
}

/* Sends the message and waits for one that parses and carries its msgID: its length, or 0. */
static size_t Exchange(Agent* agent, const unsigned char* out, size_t length, int64_t msgId, UsmHeader* header) {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (send(agent->socket, out, length, 0) < 0) {
            /* NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, so strerror's buffer is ours */
            fprintf(stderr, "usm_get: cannot send to %s: %s\n", agent->address, strerror(errno));
            return 0;
        }
        struct pollfd wait = {agent->socket, POLLIN, 0};
        while (poll(&wait, 1, WAIT_MS) > 0) {
            ssize_t got = recv(agent->socket, gIn, sizeof gIn, 0);
            /* Anything else (a stray or late datagram) is not the answer. */
            if (got > 0 && (size_t)got <= USM_MAX_MESSAGE && UsmParseMessage(gIn, (size_t)got, header) &&
                header->msgId == msgId) {
                return (size_t)got;
            }
        }
    }
    fprintf(stderr, "usm_get: no response from %s\n", agent->address);
    return 0;
}

/* A fresh msgID or request-id, 0 to 2^31-1. */
static int64_t NewId(void) {
    uint32_t id = 0;
    if (!UsmRandom(&id, sizeof id)) id = (uint32_t)time(NULL);
    return id & 0x7fffffff;
}

/* What an unauthenticated or authenticated report says, as snmpget words it. */
static const char* ReportText(const UsmPdu* pdu) {
    static const char* const kTexts[] = {"Unsupported security level", "Not in time window", "Unknown user name",
                                         "Unknown engine ID",
                                         "Authentication failure (incorrect password, community or key)",
                                         "Decryption error"};
    static const unsigned char kUsmStats[] = {0x2b, 6, 1, 6, 3, 15, 1, 1};
    if (pdu->count > 0) {
        const BerItem* name = &pdu->vars[0].name;
        if (name->length == sizeof kUsmStats + 2 && memcmp(name->data, kUsmStats, sizeof kUsmStats) == 0 &&
            name->data[sizeof kUsmStats] >= 1 && name->data[sizeof kUsmStats] <= 6) {
            return kTexts[name->data[sizeof kUsmStats] - 1];
        }
    }
    return "Report from the agent";
}

/* Engine discovery (RFC 3414 4): a request with no engine ID and no user draws a report carrying
 * the agent's engine ID, boots and time. 1 with them in agent, or 0 with a message. */
static int Discover(Agent* agent) {
    static const unsigned char kReportable = USM_FLAG_REPORTABLE;
    unsigned char pduBytes[64];
    BerWriter w = {pduBytes, 0, sizeof pduBytes, 0};
    UsmPdu pdu;
    memset(&pdu, 0, sizeof pdu);
    pdu.type = PDU_GET;
    pdu.requestId = NewId();
    UsmHeader h;
    memset(&h, 0, sizeof h);
    h.msgId = NewId();
    h.maxSize = USM_MAX_MESSAGE;
    h.flags = kReportable;
    BerWriter m = {gOut, 0, sizeof gOut, 0};
    if (!UsmWriteScopedPdu(&w, &pdu) || !UsmWriteMessage(&m, &h, pduBytes, w.length)) return 0;
    UsmHeader in;
    size_t got = Exchange(agent, gOut, m.length, h.msgId, &in);
    if (got == 0) return 0;
    UsmPdu report;
    if ((in.flags & USM_FLAG_PRIV) || !UsmParseScopedPdu(in.data.data, in.data.length, &report) ||
        report.type != PDU_REPORT || in.engineId.length == 0 || in.boots < 0 || in.time < 0) {
        fprintf(stderr, "usm_get: %s did not answer engine discovery with a report\n", agent->address);
        return 0;
    }
    memcpy(agent->engineId, in.engineId.data, in.engineId.length);
    agent->engineIdLength = in.engineId.length;
    agent->boots = in.boots;
    agent->time = in.time;
    clock_gettime(CLOCK_MONOTONIC, &agent->heard);
    return 1;
}

/* Timeliness of an authenticated message at a non-authoritative engine (RFC 3414 3.2 7b); updates
 * the notion of the agent's clock. 1 when in time. */
static int InTime(Agent* agent, const UsmHeader* in) {
    int64_t now = EngineTime(agent);
    if (in->boots >= 0x7fffffff || in->boots < agent->boots ||
        (in->boots == agent->boots && in->time < now - TIME_WINDOW)) {
        return 0;
    }
    if (in->boots > agent->boots || in->time > now) {
        agent->boots = in->boots;
        agent->time = in->time;
        clock_gettime(CLOCK_MONOTONIC, &agent->heard);
    }
    return 1;
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

/* One authPriv GetRequest. 1: answered (values printed); 0: refused or failed (message given);
 * -1: the agent says we are out of its time window, and our clock for it has been reset. */
static int Get(UsmCrypto* crypto, const UsmUser* user, Agent* agent, const unsigned char (*oids)[MAX_OID_CONTENT],
               const size_t* oidLengths, size_t count, uint64_t* salt) {
    UsmPdu pdu;
    memset(&pdu, 0, sizeof pdu);
    pdu.contextEngineId = (BerItem){BER_OCTETS, agent->engineId, agent->engineIdLength};
    pdu.type = PDU_GET;
    pdu.requestId = NewId();
    pdu.count = count;
    for (size_t i = 0; i < count; ++i) {
        pdu.vars[i].name = (BerItem){BER_OID, oids[i], oidLengths[i]};
        pdu.vars[i].value = (BerItem){BER_NULL, NULL, 0};
    }
    BerWriter plain = {gPlain, 0, USM_MAX_MESSAGE, 0};
    if (!UsmWriteScopedPdu(&plain, &pdu)) {
        fprintf(stderr, "usm_get: the request does not fit in a message\n");
        return 0;
    }
    UsmHeader h;
    memset(&h, 0, sizeof h);
    unsigned char privParams[USM_SALT_LENGTH];
    size_t encrypted = 0;
    h.msgId = NewId();
    h.maxSize = USM_MAX_MESSAGE;
    h.flags = USM_FLAG_AUTH | USM_FLAG_PRIV | USM_FLAG_REPORTABLE;
    h.engineId = (BerItem){BER_OCTETS, agent->engineId, agent->engineIdLength};
    h.boots = agent->boots;
    h.time = EngineTime(agent);
    h.user = (BerItem){BER_OCTETS, (const unsigned char*)user->name, strlen(user->name)};
    h.macLength = user->auth->macLength;
    h.privParams = (BerItem){BER_OCTETS, privParams, sizeof privParams};
    BerWriter m = {gOut, 0, sizeof gOut, 0};
    if (!UsmEncrypt(crypto, user, (uint32_t)h.boots, (uint32_t)h.time, (*salt)++, gPlain, plain.length, gCipher,
                    &encrypted, privParams) ||
        !UsmWriteMessage(&m, &h, gCipher, encrypted) || !UsmSign(crypto, user, gOut, m.length, h.macOffset)) {
        fprintf(stderr, "usm_get: the request could not be made\n");
        return 0;
    }

    UsmHeader in;
    size_t got = Exchange(agent, gOut, m.length, h.msgId, &in);
    if (got == 0) {
        fprintf(stderr, "usm_get: (an agent drops a request it cannot decrypt: is the privacy password right?)\n");
        return 0;
    }
    if (in.engineId.length != agent->engineIdLength ||
        memcmp(in.engineId.data, agent->engineId, agent->engineIdLength) != 0) {
        fprintf(stderr, "usm_get: the answer comes from another engine\n");
        return 0;
    }
    UsmPdu answer;
    if (!(in.flags & USM_FLAG_AUTH)) {
        /* Unauthenticated: only a report is taken, and only as a reason to stop. */
        if (!UsmParseScopedPdu(in.data.data, in.data.length, &answer) || answer.type != PDU_REPORT) {
            fprintf(stderr, "usm_get: unauthenticated answer refused\n");
        } else {
            fprintf(stderr, "usm_get: %s\n", ReportText(&answer));
        }
        return 0;
    }
    if (in.user.length != strlen(user->name) || memcmp(in.user.data, user->name, in.user.length) != 0 ||
        !UsmVerify(crypto, user, gIn, got, in.macOffset, in.macLength)) {
        fprintf(stderr, "usm_get: Authentication failure: the answer's MAC is wrong\n");
        return 0;
    }
    if (!InTime(agent, &in)) {
        fprintf(stderr, "usm_get: Not in time window: the answer is outside the agent's 150 s window\n");
        return 0;
    }
    const unsigned char* scoped = in.data.data;
    size_t scopedLength = in.data.length;
    if (in.flags & USM_FLAG_PRIV) {
        if (!UsmDecrypt(crypto, user, (uint32_t)in.boots, (uint32_t)in.time, in.privParams.data,
                        in.privParams.length, in.data.data, in.data.length, gPlain, &scopedLength)) {
            fprintf(stderr, "usm_get: Decryption error\n");
            return 0;
        }
        scoped = gPlain;
    }
    if (!UsmParseScopedPdu(scoped, scopedLength, &answer)) {
        fprintf(stderr, "usm_get: the answer does not decode (wrong privacy password?)\n");
        return 0;
    }
    if (answer.type == PDU_REPORT) {
        /* An authenticated notInTimeWindow report carries the agent's clock: one more try with it. */
        if (strcmp(ReportText(&answer), "Not in time window") == 0) return -1;
        fprintf(stderr, "usm_get: %s\n", ReportText(&answer));
        return 0;
    }
    if (answer.type != PDU_RESPONSE || answer.requestId != pdu.requestId || !(in.flags & USM_FLAG_PRIV)) {
        fprintf(stderr, "usm_get: the agent's answer is not an encrypted response to this request\n");
        return 0;
    }
    if (answer.errorStatus != 0) {
        fprintf(stderr, "usm_get: Error in packet: error-status %lld at index %lld\n", (long long)answer.errorStatus,
                (long long)answer.errorIndex);
        return 0;
    }
    for (size_t i = 0; i < answer.count; ++i) PrintVarBind(&answer.vars[i]);
    return 1;
}

int main(int argc, char** argv) {
    const char *userName = NULL, *auth = NULL, *authFile = NULL, *priv = NULL, *privFile = NULL, *address = NULL;
    static unsigned char oids[USM_MAX_VARBINDS][MAX_OID_CONTENT];
    size_t oidLengths[USM_MAX_VARBINDS], count = 0;
    for (int i = 1; i < argc; ++i) {
        const char** option = strcmp(argv[i], "--user") == 0                 ? &userName
                              : strcmp(argv[i], "--auth") == 0               ? &auth
                              : strcmp(argv[i], "--auth-password-file") == 0 ? &authFile
                              : strcmp(argv[i], "--priv") == 0               ? &priv
                              : strcmp(argv[i], "--priv-password-file") == 0 ? &privFile
                                                                             : NULL;
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
    if (!userName || !auth || !authFile || !priv || !privFile || !address || count == 0) {
        return Usage("missing arguments");
    }
    if (strlen(userName) == 0 || strlen(userName) > USM_MAX_USER) return Usage("the user name needs 1 to 32 characters");

    UsmUser user;
    memset(&user, 0, sizeof user);
    memcpy(user.name, userName, strlen(userName));
    user.auth = UsmFindAuth(auth);
    user.priv = UsmFindPriv(priv);
    if (user.auth == NULL) return Usage("unknown authentication protocol");
    if (user.priv == NULL) return Usage("unknown privacy protocol");

    UsmCrypto crypto;
    Agent agent;
    memset(&agent, 0, sizeof agent);
    agent.address = address;
    agent.socket = -1;
    uint64_t salt = 0;
    int result = 0;
    if (UsmCryptoOpen(&crypto) && UsmUserFromFiles(&crypto, &user, authFile, privFile)) {
        agent.socket = Connect(address);
        if (agent.socket < 0) {
            fprintf(stderr, "usm_get: cannot reach %s\n", address);
        } else if (!UsmRandom(&salt, sizeof salt)) {
            fprintf(stderr, "usm_get: no random salt\n");
        } else if (Discover(&agent) && UsmLocalise(&crypto, &user, agent.engineId, agent.engineIdLength)) {
            result = Get(&crypto, &user, &agent, (const unsigned char(*)[MAX_OID_CONTENT])oids, oidLengths, count, &salt);
            if (result < 0) result = Get(&crypto, &user, &agent, (const unsigned char(*)[MAX_OID_CONTENT])oids,
                                         oidLengths, count, &salt);
            if (result < 0) fprintf(stderr, "usm_get: Not in time window\n");
        }
    }
    if (agent.socket >= 0) close(agent.socket);
    UsmUserWipe(&user);
    UsmCryptoClose(&crypto);
    return result == 1 ? 0 : 1;
}
