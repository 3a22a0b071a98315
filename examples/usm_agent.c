/*
 * A one-user SNMPv3 agent on 127.0.0.1 over UDP, through the library's
 * C-callable interface:
 *
 *   usm_agent --port PORT --user U --auth DIGEST --auth-password-file F
 *             --priv CIPHER --priv-password-file F
 *
 * It answers engine discovery with its engine ID, boots and time, and
 * authPriv GetRequests (GetNext and GetBulk too) for sysDescr.0, sysUpTime.0
 * and the usmStats counters, and SetRequests that change its user's keys by
 * KeyChange (usmUser[Own]AuthKeyChange, usmUser[Own]PrivKeyChange, RFC 3414
 * 5): the answer goes out under the old keys, the next message needs the new
 * ones. A request is authenticated before anything in it is used; one outside the 150-second window is refused with an
 * authenticated usmStatsNotInTimeWindows report (RFC 3414 3.2). Every error
 * report it sends is counted in its usmStats counter.
 *
 * Runs until SIGTERM or SIGINT, then prints the counts and exits 0; exits 1
 * when it cannot start (bad password file, port taken), 2 for bad usage.
 */
/* NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): glibc's feature-test macro */
#define _GNU_SOURCE /* ppoll */
#include <errno.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "usm_ber.h"
#include "usm_sec.h"

#define BOOTS 1 /* nothing is kept between runs; a new engine ID each start refuses old messages */

static const char* const kStatsNames[STATS_COUNT] = {"", "unsupportedSecLevels", "notInTimeWindows",
                                                     "unknownUserNames", "unknownEngineIDs", "wrongDigests",
                                                     "decryptionErrors"};
static const char kDescription[] = "libwexcryptcpp example agent";

/* The objects, in OID order (GetNext walks them). */
enum { SYS_DESCR, SYS_UPTIME, USM_STATS_FIRST, OBJECT_COUNT = USM_STATS_FIRST + STATS_COUNT - 1 };
static const unsigned char kObjects[OBJECT_COUNT][11] = {
    {0x2b, 6, 1, 2, 1, 1, 1, 0}, {0x2b, 6, 1, 2, 1, 1, 3, 0},
    {0x2b, 6, 1, 6, 3, 15, 1, 1, 1, 0}, {0x2b, 6, 1, 6, 3, 15, 1, 1, 2, 0}, {0x2b, 6, 1, 6, 3, 15, 1, 1, 3, 0},
    {0x2b, 6, 1, 6, 3, 15, 1, 1, 4, 0}, {0x2b, 6, 1, 6, 3, 15, 1, 1, 5, 0}, {0x2b, 6, 1, 6, 3, 15, 1, 1, 6, 0}};
static const size_t kObjectLengths[OBJECT_COUNT] = {8, 8, 10, 10, 10, 10, 10, 10};

static volatile sig_atomic_t gStop = 0;
static unsigned char gIn[USM_MAX_MESSAGE + 1], gOut[USM_MAX_MESSAGE];
/* The decrypted request stays in gRequest while the answer is built in gPlain and encrypted into gCipher. */
static unsigned char gRequest[USM_MAX_MESSAGE + 8], gPlain[USM_MAX_MESSAGE + 8], gCipher[USM_MAX_MESSAGE + 8];

typedef struct Engine {
    UsmCrypto crypto;
    UsmUser user;
    UsmUser next; /* the user's keys once the answer to a Set has gone out */
    unsigned char engineId[13];
    struct timespec started;
    uint32_t stats[STATS_COUNT];
    uint64_t salt;
} Engine;

static void OnSignal(int signal) {
    (void)signal;
    gStop = 1;
}

static int Usage(const char* why) {
    return UsmUsage("usm_agent", why,
                    "--port PORT --user U --auth DIGEST --auth-password-file F --priv CIPHER --priv-password-file F");
}

/* Hundredths of a second since the start. */
static uint64_t Ticks(const Engine* engine) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)(now.tv_sec - engine->started.tv_sec) * 100 +
           (uint64_t)((now.tv_nsec - engine->started.tv_nsec) / 10000000);
}

static int64_t EngineTime(const Engine* engine) { return (int64_t)(Ticks(engine) / 100); }

/* -1, 0 or 1 as OID a sorts before, with or after OID b, compared by their arcs (their BER bytes do not sort the same way once an arc needs two). */
static int CompareOids(const unsigned char* a, size_t aLength, const unsigned char* b, size_t bLength) {
    size_t i = 0, j = 0;
    while (i < aLength && j < bLength) {
        uint64_t x = 0, y = 0;
        do x = (x << 7) | (a[i] & 0x7f); while ((a[i++] & 0x80) && i < aLength);
        do y = (y << 7) | (b[j] & 0x7f); while ((b[j++] & 0x80) && j < bLength);
        if (x != y) return x < y ? -1 : 1;
    }
    return (i < aLength) - (j < bLength);
}

/* The value of object index into bind (content written to scratch, 9 bytes). */
static void Value(const Engine* engine, int index, UsmVarBind* bind, unsigned char* scratch) {
    bind->name = (BerItem){BER_OID, kObjects[index], kObjectLengths[index]};
    if (index == SYS_DESCR) {
        bind->value = (BerItem){BER_OCTETS, (const unsigned char*)kDescription, sizeof kDescription - 1};
        return;
    }
    uint64_t number = index == SYS_UPTIME ? Ticks(engine) & 0xffffffff : engine->stats[index - USM_STATS_FIRST + 1];
    BerWriter w = {scratch, 0, 16, 0};
    BerPutInteger(&w, BER_INTEGER, (int64_t)number);
    /* Only the content: skip the tag and the one-byte length just written. */
    bind->value = (BerItem){index == SYS_UPTIME ? BER_TIMETICKS : BER_COUNTER32, scratch + 2, w.length - 2};
}

/* Fills the response's variable bindings from the request's. */
static void Answer(const Engine* engine, const UsmPdu* request, UsmPdu* response,
                   unsigned char (*scratch)[16]) {
    for (size_t i = 0; i < request->count; ++i) {
        const BerItem* name = &request->vars[i].name;
        UsmVarBind* bind = &response->vars[i];
        int found = -1;
        for (int k = 0; k < OBJECT_COUNT && found < 0; ++k) {
            int order = CompareOids(name->data, name->length, kObjects[k], kObjectLengths[k]);
            if (request->type == PDU_GET ? order == 0 : order < 0) found = k;
        }
        if (found >= 0) {
            Value(engine, found, bind, scratch[i]);
        } else {
            bind->name = *name;
            /* noSuchInstance under an object we have (sysDescr.1), noSuchObject elsewhere. */
            int underObject = 0;
            for (int k = 0; k < OBJECT_COUNT; ++k) {
                size_t prefix = kObjectLengths[k] - 1;
                underObject |= name->length > prefix && memcmp(name->data, kObjects[k], prefix) == 0;
            }
            bind->value = (BerItem){request->type != PDU_GET ? BER_END_OF_MIB_VIEW
                                    : underObject         ? BER_NO_SUCH_INSTANCE
                                                          : BER_NO_SUCH_OBJECT,
                                    NULL, 0};
        }
    }
    response->count = request->count;
}

/* The error-status for one binding of a Set, with the new key decoded into engine->next: 0, or notWritable
 * (not a KeyChange of this user), wrongType, wrongLength or genErr. */
static int64_t SetOne(Engine* engine, const UsmVarBind* bind) {
    enum { GEN_ERR = 5, WRONG_TYPE = 7, WRONG_LENGTH = 8, NOT_WRITABLE = 17 };
    UsmUser* next = &engine->next;
    unsigned char oid[USM_MAX_ENTRY_OID];
    size_t length = UsmUserEntryOid(0, engine->engineId, sizeof engine->engineId, next->name, oid);
    const size_t column = 10; /* where the column's arc lies in the OID */
    unsigned char arc = bind->name.length == length ? bind->name.data[column] : 0;
    int auth = arc == 6 || arc == 7;
    if ((!auth && arc != 9 && arc != 10) || memcmp(bind->name.data, oid, column) != 0 ||
        memcmp(bind->name.data + column + 1, oid + column + 1, length - column - 1) != 0) {
        return NOT_WRITABLE;
    }
    if (bind->value.tag != BER_OCTETS) return WRONG_TYPE;
    /* random | delta, each the key's length: the digest's size for the authentication key, what the cipher
     * reads (with DES's and 3DES's pre-IV) for the privacy key, as snmpd keeps it. */
    size_t half = bind->value.length / 2;
    if (bind->value.length % 2 != 0 || half != (auth ? next->keyLength : UsmPrivNeeded(next->priv))) {
        return WRONG_LENGTH;
    }
    unsigned char* key = auth ? next->authKey : next->privKey;
    return UsmKeyChange(&engine->crypto, next, key, bind->value.data, half, bind->value.data + half, key) ? 0 : GEN_ERR;
}

/* A Set takes every binding or none: the first refused one is answered with its error and index. 1 when
 * the keys change, to those in engine->next. */
static int Set(Engine* engine, const UsmPdu* request, UsmPdu* response) {
    engine->next = engine->user;
    response->count = request->count;
    for (size_t i = 0; i < request->count; ++i) response->vars[i] = request->vars[i];
    for (size_t i = 0; i < request->count && response->errorStatus == 0; ++i) {
        response->errorStatus = SetOne(engine, &request->vars[i]);
        response->errorIndex = response->errorStatus != 0 ? (int64_t)i + 1 : 0;
    }
    return response->errorStatus == 0 && request->count > 0;
}

/* Writes the reply message into gOut: a report in clear (or authenticated for notInTimeWindow), or an
 * encrypted response. Its length, 0 when it cannot be made. */
static size_t Reply(Engine* engine, const UsmHeader* in, unsigned char flags, const UsmPdu* pdu) {
    BerWriter plain = {gPlain, 0, USM_MAX_MESSAGE, 0};
    if (!UsmWriteScopedPdu(&plain, pdu)) return 0;
    UsmHeader out;
    unsigned char privParams[USM_SALT_LENGTH];
    memset(&out, 0, sizeof out);
    out.msgId = in->msgId;
    out.maxSize = USM_MAX_MESSAGE;
    out.flags = flags;
    out.engineId = (BerItem){BER_OCTETS, engine->engineId, sizeof engine->engineId};
    out.boots = BOOTS;
    out.time = EngineTime(engine);
    out.user = in->user;
    const unsigned char* data = gPlain;
    size_t length = plain.length;
    if (flags & USM_FLAG_AUTH) out.macLength = engine->user.auth->macLength;
    if (flags & USM_FLAG_PRIV) {
        /* RFC 3414 8.1.1.1 salts DES with the engine boots; RFC 3826 AES with a 64-bit counter. */
        uint64_t salt = engine->user.priv->des ? ((uint64_t)BOOTS << 32) | (uint32_t)engine->salt : engine->salt;
        ++engine->salt;
        const int encrypted = UsmEncrypt(&engine->crypto, &engine->user, BOOTS, (uint32_t)out.time, salt, gPlain,
                                         plain.length, gCipher, &length, privParams);
        /* It may echo a KeyChange value, from which and the old key the new one follows. */
        UsmWipe(gPlain, plain.length);
        if (!encrypted) return 0;
        out.privParams = (BerItem){BER_OCTETS, privParams, sizeof privParams};
        data = gCipher;
    }
    BerWriter m = {gOut, 0, sizeof gOut, 0};
    if (!UsmWriteMessage(&m, &out, data, length)) return 0;
    if ((flags & USM_FLAG_AUTH) && !UsmSign(&engine->crypto, &engine->user, gOut, m.length, out.macOffset)) return 0;
    return m.length;
}

/* Counts the error, then writes its report into gOut when the request asked for reports: the
 * report's length, or 0 when none is sent. */
static size_t Report(Engine* engine, const UsmHeader* in, int counter, int64_t requestId) {
    unsigned char value[16];
    ++engine->stats[counter];
    if (!(in->flags & USM_FLAG_REPORTABLE)) return 0;
    UsmPdu pdu;
    memset(&pdu, 0, sizeof pdu);
    pdu.contextEngineId = (BerItem){BER_OCTETS, engine->engineId, sizeof engine->engineId};
    pdu.type = PDU_REPORT;
    pdu.requestId = requestId;
    pdu.count = 1;
    Value(engine, USM_STATS_FIRST + counter - 1, &pdu.vars[0], value);
    /* Only the time report is authenticated (RFC 3414 3.2 7a); the others cannot be. */
    return Reply(engine, in, counter == NOT_IN_TIME_WINDOWS ? USM_FLAG_AUTH : 0, &pdu);
}

static int Same(const BerItem* item, const void* bytes, size_t length) {
    return item->length == length && memcmp(item->data, bytes, length) == 0;
}

/* The reply to one datagram (in gIn) in gOut: its length, 0 for none. */
static size_t Handle(Engine* engine, size_t length) {
    UsmHeader in;
    UsmPdu request;
    if (!UsmParseMessage(gIn, length, &in) || ((in.flags & USM_FLAG_PRIV) && !(in.flags & USM_FLAG_AUTH))) {
        return 0;
    }
    /* A report needs the request ID; it can be read only from a PDU sent in clear. */
    int64_t clearId = !(in.flags & USM_FLAG_PRIV) && UsmParseScopedPdu(in.data.data, in.data.length, &request)
                          ? request.requestId
                          : 0;
    if (!Same(&in.engineId, engine->engineId, sizeof engine->engineId)) {
        return Report(engine, &in, UNKNOWN_ENGINE_IDS, clearId);
    }
    if (!Same(&in.user, engine->user.name, strlen(engine->user.name))) {
        return Report(engine, &in, UNKNOWN_USER_NAMES, clearId);
    }
    if ((in.flags & (USM_FLAG_AUTH | USM_FLAG_PRIV)) != (USM_FLAG_AUTH | USM_FLAG_PRIV)) {
        return Report(engine, &in, UNSUPPORTED_SEC_LEVELS, clearId);
    }
    if (!UsmVerify(&engine->crypto, &engine->user, gIn, length, in.macOffset, in.macLength)) {
        return Report(engine, &in, WRONG_DIGESTS, 0);
    }
    /* Authentic from here on. A copy replayed late, or made for another boot, is refused. */
    int64_t now = EngineTime(engine);
    if (in.boots != BOOTS || in.time < now - USM_TIME_WINDOW || in.time > now + USM_TIME_WINDOW) {
        return Report(engine, &in, NOT_IN_TIME_WINDOWS, 0);
    }
    size_t scopedLength = 0;
    if (!UsmDecrypt(&engine->crypto, &engine->user, (uint32_t)in.boots, (uint32_t)in.time, in.privParams.data,
                    in.privParams.length, in.data.data, in.data.length, gRequest, &scopedLength) ||
        !UsmParseScopedPdu(gRequest, scopedLength, &request)) {
        return Report(engine, &in, DECRYPTION_ERRORS, 0);
    }
    if (request.type != PDU_GET && request.type != PDU_GET_NEXT && request.type != PDU_GET_BULK &&
        request.type != PDU_SET) {
        UsmWipe(gRequest, scopedLength);
        return 0; /* responses, reports and notifications are not for an agent to answer */
    }
    static UsmPdu response;
    static unsigned char scratch[USM_MAX_VARBINDS][16];
    memset(&response, 0, sizeof response);
    response.contextEngineId = request.contextEngineId;
    response.contextName = request.contextName;
    response.type = PDU_RESPONSE;
    response.requestId = request.requestId;
    int changed = 0;
    if (request.type == PDU_SET) {
        changed = Set(engine, &request, &response);
    } else {
        Answer(engine, &request, &response, scratch);
    }
    size_t reply = Reply(engine, &in, USM_FLAG_AUTH | USM_FLAG_PRIV, &response);
    if (reply > (size_t)in.maxSize) {
        /* tooBig: the same answer without its bindings, and a Set not done (RFC 3416 4.2.5). */
        response.errorStatus = 1;
        response.errorIndex = 0;
        response.count = 0;
        changed = 0;
        reply = Reply(engine, &in, USM_FLAG_AUTH | USM_FLAG_PRIV, &response);
    }
    UsmWipe(gRequest, scopedLength);
    if (changed && reply > 0) {
        /* Kept only when an answer saying they were taken could be made. */
        engine->user = engine->next;
        printf("usm_agent: %s's keys changed\n", engine->user.name);
        (void)fflush(stdout);
    }
    UsmUserWipe(&engine->next);
    return reply;
}

/* Answers requests until SIGTERM or SIGINT: 1 then, 0 when waiting for requests failed. */
static int Serve(Engine* engine, int s) {
    sigset_t blocked, open;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    /* The signals get through only while waiting, so none is lost between the check and the wait. */
    pthread_sigmask(SIG_BLOCK, &blocked, &open);
    sigdelset(&open, SIGTERM);
    sigdelset(&open, SIGINT);
    while (!gStop) {
        struct pollfd wait = {s, POLLIN, 0};
        int ready = ppoll(&wait, 1, NULL, &open);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            perror("usm_agent: poll");
            return 0;
        }
        struct sockaddr_in from;
        socklen_t fromLength = sizeof from;
        ssize_t got = recvfrom(s, gIn, sizeof gIn, 0, (struct sockaddr*)&from, &fromLength);
        if (got <= 0 || (size_t)got > USM_MAX_MESSAGE) continue;
        size_t reply = Handle(engine, (size_t)got);
        if (reply > 0) sendto(s, gOut, reply, 0, (struct sockaddr*)&from, fromLength);
    }
    return 1;
}

int main(int argc, char** argv) {
    UsmOptions options = {0};
    const char* port = NULL;
    for (int i = 1; i < argc; ++i) {
        const char** option = strcmp(argv[i], "--port") == 0 ? &port : UsmOption(&options, argv[i]);
        if (option == NULL) return Usage("unknown argument");
        if (i + 1 == argc) return Usage("an option lacks its value");
        *option = argv[++i];
    }
    if (!port) return Usage("missing arguments");
    char* end = NULL;
    long portNumber = strtol(port, &end, 10);
    if (*end != '\0' || portNumber < 1 || portNumber > 65535) return Usage("the port must be 1 to 65535");

    static Engine engine;
    const char* why = UsmUserFromOptions(&engine.user, &options);
    if (why != NULL) return Usage(why);
    /* RFC 3411 engine ID: no enterprise number of its own (0), format 5 (octets), 8 random octets. */
    static const unsigned char kPrefix[5] = {0x80, 0, 0, 0, 5};
    memcpy(engine.engineId, kPrefix, sizeof kPrefix);
    clock_gettime(CLOCK_MONOTONIC, &engine.started);

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = OnSignal;
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    int ok = 0, s = -1;
    if (!UsmRandom(engine.engineId + sizeof kPrefix, sizeof engine.engineId - sizeof kPrefix) ||
        !UsmRandom(&engine.salt, sizeof engine.salt)) {
        fprintf(stderr, "usm_agent: no random bytes\n");
    } else if (UsmCryptoOpen(&engine.crypto) &&
               UsmUserFromFiles(&engine.crypto, &engine.user, options.authFile, options.privFile) &&
               UsmLocalise(&engine.crypto, &engine.user, engine.engineId, sizeof engine.engineId)) {
        /* Only the localised keys are needed from here on. */
        UsmWipe(engine.user.authKu, sizeof engine.user.authKu);
        UsmWipe(engine.user.privKu, sizeof engine.user.privKu);
        struct sockaddr_in address;
        memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_port = htons((uint16_t)portNumber);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        s = socket(AF_INET, SOCK_DGRAM, 0);
        if (s < 0 || bind(s, (struct sockaddr*)&address, sizeof address) != 0) {
            /* NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, so strerror's buffer is ours */
            fprintf(stderr, "usm_agent: cannot listen on 127.0.0.1:%ld: %s\n", portNumber, strerror(errno));
        } else {
            printf("usm_agent: user %s (%s, %s) on 127.0.0.1:%ld, engine ID ", engine.user.name,
                   engine.user.auth->name, engine.user.priv->name, portNumber);
            for (size_t i = 0; i < sizeof engine.engineId; ++i) printf("%02x", engine.engineId[i]);
            printf("\n");
            (void)fflush(stdout); /* a banner lost is no reason to stop serving */
            ok = Serve(&engine, s);
        }
    }
    UsmUserWipe(&engine.user);
    UsmCryptoClose(&engine.crypto);
    if (s >= 0) close(s);
    if (ok) {
        printf("usm_agent: stopped; reports sent:");
        for (int i = 1; i < STATS_COUNT; ++i) printf(" %s %u", kStatsNames[i], engine.stats[i]);
        printf("\n");
    }
    return ok ? 0 : 1;
}
