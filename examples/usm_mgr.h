/*
 * The manager side of the UDP examples: a socket to the agent, engine
 * discovery and the agent's clock (RFC 3414 4 and 3.2), and one authPriv
 * request with its verified, decrypted answer.
 */
#ifndef USM_MGR_H
#define USM_MGR_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "usm_ber.h"
#include "usm_sec.h"

typedef struct Agent {
    const char* program; /* for messages */
    const char* address;
    int socket;
    uint64_t salt;
    unsigned char engineId[USM_MAX_ENGINE_ID];
    size_t engineIdLength;
    int64_t boots;
    int64_t time;           /* the agent's time when it was last heard from */
    struct timespec heard;  /* local clock then */
    int resent;             /* whether the last request went out again for want of an answer */
} Agent;

/* Reaches HOST:PORT (port 161 when none is given) and learns the agent's engine ID, boots and time: 1, or 0
 * with a message on stderr. UsmAgentClose closes the socket either way. */
int UsmAgentOpen(Agent* agent, const char* program, const char* address);
void UsmAgentClose(Agent* agent);

/* Sends request (type and variable bindings set; the rest is filled in) as the user, encrypted and
 * authenticated, and takes the answer, once more after a notInTimeWindow report. 1 with an error-free
 * response in answer (its bytes live until the next request); 0 with a message on stderr. */
int UsmRequest(UsmCrypto* crypto, const UsmUser* user, Agent* agent, UsmPdu* request, UsmPdu* answer);

#endif /* USM_MGR_H */
