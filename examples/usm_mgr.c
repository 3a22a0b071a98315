#include "usm_mgr.h"

#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define ATTEMPTS 3
#define WAIT_MS 1000

static unsigned char gOut[USM_MAX_MESSAGE], gIn[USM_MAX_MESSAGE + 1];
static unsigned char gPlain[USM_MAX_MESSAGE + 8], gCipher[USM_MAX_MESSAGE + 8];

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
        agent->resent = attempt > 0;
        if (send(agent->socket, out, length, 0) < 0) {
            /* NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, so strerror's buffer is ours */
            fprintf(stderr, "%s: cannot send to %s: %s\n", agent->program, agent->address, strerror(errno));
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
    fprintf(stderr, "%s: no response from %s\n", agent->program, agent->address);
    return 0;
}

/* A fresh msgID or request-id, 0 to 2^31-1. */
static int64_t NewId(void) {
    uint32_t id = 0;
    if (!UsmRandom(&id, sizeof id)) id = (uint32_t)time(NULL);
    return id & 0x7fffffff;
}

/* The usmStats counter a report carries, or 0 for another. */
static int ReportCounter(const UsmPdu* pdu) {
    static const unsigned char kUsmStats[] = {0x2b, 6, 1, 6, 3, 15, 1, 1};
    const BerItem* name = &pdu->vars[0].name;
    if (pdu->count == 0 || name->length != sizeof kUsmStats + 2 ||
        memcmp(name->data, kUsmStats, sizeof kUsmStats) != 0) {
        return 0;
    }
    return name->data[sizeof kUsmStats] < STATS_COUNT ? name->data[sizeof kUsmStats] : 0;
}

/* What an unauthenticated or authenticated report says, as snmpget words it. */
static const char* ReportText(const UsmPdu* pdu) {
    static const char* const kTexts[STATS_COUNT] = {"Report from the agent", "Unsupported security level",
                                                    "Not in time window", "Unknown user name", "Unknown engine ID",
                                                    "Authentication failure (incorrect password, community or key)",
                                                    "Decryption error"};
    return kTexts[ReportCounter(pdu)];
}

/* Engine discovery (RFC 3414 4): a request with no engine ID and no user draws a report carrying
 * the agent's engine ID, boots and time. 1 with them in agent, or 0 with a message. */
static int Discover(Agent* agent) {
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
    h.flags = USM_FLAG_REPORTABLE;
    BerWriter m = {gOut, 0, sizeof gOut, 0};
    if (!UsmWriteScopedPdu(&w, &pdu) || !UsmWriteMessage(&m, &h, pduBytes, w.length)) return 0;
    UsmHeader in;
    size_t got = Exchange(agent, gOut, m.length, h.msgId, &in);
    if (got == 0) return 0;
    UsmPdu report;
    if ((in.flags & USM_FLAG_PRIV) || !UsmParseScopedPdu(in.data.data, in.data.length, &report) ||
        report.type != PDU_REPORT || in.engineId.length == 0 || in.boots < 0 || in.time < 0) {
        fprintf(stderr, "%s: %s did not answer engine discovery with a report\n", agent->program, agent->address);
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
        (in->boots == agent->boots && in->time < now - USM_TIME_WINDOW)) {
        return 0;
    }
    if (in->boots > agent->boots || in->time > now) {
        agent->boots = in->boots;
        agent->time = in->time;
        clock_gettime(CLOCK_MONOTONIC, &agent->heard);
    }
    return 1;
}

/* One authPriv request. 1: answered (answer filled in); 0: refused or failed (message given);
 * -1: the agent says we are out of its time window, and our clock for it has been reset. */
static int Request(UsmCrypto* crypto, const UsmUser* user, Agent* agent, UsmPdu* pdu, UsmPdu* answerOut) {
    pdu->contextEngineId = (BerItem){BER_OCTETS, agent->engineId, agent->engineIdLength};
    pdu->requestId = NewId();
    BerWriter plain = {gPlain, 0, USM_MAX_MESSAGE, 0};
    if (!UsmWriteScopedPdu(&plain, pdu)) {
        fprintf(stderr, "%s: the request does not fit in a message\n", agent->program);
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
    const int sealed = UsmEncrypt(crypto, user, (uint32_t)h.boots, (uint32_t)h.time, agent->salt++, gPlain,
                                  plain.length, gCipher, &encrypted, privParams);
    UsmWipe(gPlain, plain.length);
    if (!sealed || !UsmWriteMessage(&m, &h, gCipher, encrypted) || !UsmSign(crypto, user, gOut, m.length, h.macOffset)) {
        fprintf(stderr, "%s: the request could not be made\n", agent->program);
        return 0;
    }

    UsmHeader in;
    size_t got = Exchange(agent, gOut, m.length, h.msgId, &in);
    if (got == 0) {
        fprintf(stderr, "%s: (an agent drops a request it cannot decrypt: is the privacy password right?)\n",
                agent->program);
        return 0;
    }
    if (in.engineId.length != agent->engineIdLength ||
        memcmp(in.engineId.data, agent->engineId, agent->engineIdLength) != 0) {
        fprintf(stderr, "%s: the answer comes from another engine\n", agent->program);
        return 0;
    }
    UsmPdu answer;
    if (!(in.flags & USM_FLAG_AUTH)) {
        /* Unauthenticated: only a report is taken, and only as a reason to stop. */
        if (!UsmParseScopedPdu(in.data.data, in.data.length, &answer) || answer.type != PDU_REPORT) {
            fprintf(stderr, "%s: unauthenticated answer refused\n", agent->program);
        } else {
            fprintf(stderr, "%s: %s\n", agent->program, ReportText(&answer));
        }
        return 0;
    }
    if (in.user.length != strlen(user->name) || memcmp(in.user.data, user->name, in.user.length) != 0 ||
        !UsmVerify(crypto, user, gIn, got, in.macOffset, in.macLength)) {
        fprintf(stderr, "%s: Authentication failure: the answer's MAC is wrong\n", agent->program);
        return 0;
    }
    if (!InTime(agent, &in)) {
        fprintf(stderr, "%s: Not in time window: the answer is outside the agent's %d s window\n", agent->program,
                USM_TIME_WINDOW);
        return 0;
    }
    const unsigned char* scoped = in.data.data;
    size_t scopedLength = in.data.length;
    if (in.flags & USM_FLAG_PRIV) {
        if (!UsmDecrypt(crypto, user, (uint32_t)in.boots, (uint32_t)in.time, in.privParams.data,
                        in.privParams.length, in.data.data, in.data.length, gPlain, &scopedLength)) {
            fprintf(stderr, "%s: Decryption error\n", agent->program);
            return 0;
        }
        scoped = gPlain;
    }
    if (!UsmParseScopedPdu(scoped, scopedLength, &answer)) {
        fprintf(stderr, "%s: the answer does not decode (wrong privacy password?)\n", agent->program);
        return 0;
    }
    if (answer.type == PDU_REPORT) {
        if (ReportCounter(&answer) == NOT_IN_TIME_WINDOWS) return -1;
        fprintf(stderr, "%s: %s\n", agent->program, ReportText(&answer));
        return 0;
    }
    if (answer.type != PDU_RESPONSE || answer.requestId != pdu->requestId || !(in.flags & USM_FLAG_PRIV)) {
        fprintf(stderr, "%s: the agent's answer is not an encrypted response to this request\n", agent->program);
        return 0;
    }
    if (answer.errorStatus != 0) {
        /* RFC 3416's error-status names, as snmpget and snmpset print them. */
        static const char* const kErrors[] = {"noError", "tooBig", "noSuchName", "badValue", "readOnly", "genErr",
                                              "noAccess", "wrongType", "wrongLength", "wrongEncoding", "wrongValue",
                                              "noCreation", "inconsistentValue", "resourceUnavailable",
                                              "commitFailed", "undoFailed", "authorizationError", "notWritable",
                                              "inconsistentName"};
        int known = answer.errorStatus > 0 && answer.errorStatus < (int64_t)(sizeof kErrors / sizeof kErrors[0]);
        fprintf(stderr, "%s: Error in packet: %s (error-status %lld) at index %lld\n", agent->program,
                known ? kErrors[answer.errorStatus] : "unknown error", (long long)answer.errorStatus,
                (long long)answer.errorIndex);
        return 0;
    }
    *answerOut = answer;
    return 1;
}

int UsmRequest(UsmCrypto* crypto, const UsmUser* user, Agent* agent, UsmPdu* request, UsmPdu* answer) {
    int result = Request(crypto, user, agent, request, answer);
    /* An authenticated notInTimeWindow report carried the agent's clock: one more try with it. */
    if (result < 0) result = Request(crypto, user, agent, request, answer);
    if (result < 0) fprintf(stderr, "%s: Not in time window\n", agent->program);
    return result == 1;
}

int UsmAgentOpen(Agent* agent, const char* program, const char* address) {
    memset(agent, 0, sizeof *agent);
    agent->program = program;
    agent->address = address;
    agent->socket = Connect(address);
    if (agent->socket < 0) {
        fprintf(stderr, "%s: cannot reach %s\n", program, address);
        return 0;
    }
    if (!UsmRandom(&agent->salt, sizeof agent->salt)) {
        fprintf(stderr, "%s: no random salt\n", program);
        return 0;
    }
    return Discover(agent);
}

void UsmAgentClose(Agent* agent) {
    /* The last answer, which may echo a KeyChange value. */
    UsmWipe(gPlain, sizeof gPlain);
    if (agent->socket >= 0) close(agent->socket);
    agent->socket = -1;
}
