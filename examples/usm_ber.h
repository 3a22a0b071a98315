/*
 * The little BER that an SNMPv3 message needs (RFC 3412 6, RFC 3414 2.4):
 * INTEGER, OCTET STRING, OID, NULL, SEQUENCE and the application types of
 * the values, plus the fixed message shape (header, USM security parameters,
 * scoped PDU). Not a general ASN.1 library: lengths up to 65535, no
 * indefinite forms.
 */
#ifndef USM_BER_H
#define USM_BER_H

#include <stddef.h>
#include <stdint.h>

enum {
    BER_INTEGER = 0x02,
    BER_OCTETS = 0x04,
    BER_NULL = 0x05,
    BER_OID = 0x06,
    BER_SEQUENCE = 0x30,
    BER_IPADDRESS = 0x40,
    BER_COUNTER32 = 0x41,
    BER_GAUGE32 = 0x42,
    BER_TIMETICKS = 0x43,
    BER_COUNTER64 = 0x46,
    BER_NO_SUCH_OBJECT = 0x80,
    BER_NO_SUCH_INSTANCE = 0x81,
    BER_END_OF_MIB_VIEW = 0x82,
    PDU_GET = 0xa0,
    PDU_GET_NEXT = 0xa1,
    PDU_RESPONSE = 0xa2,
    PDU_SET = 0xa3,
    PDU_GET_BULK = 0xa5,
    PDU_INFORM = 0xa6,
    PDU_TRAP = 0xa7,
    PDU_REPORT = 0xa8
};

/* msgFlags bits */
enum { USM_FLAG_AUTH = 1, USM_FLAG_PRIV = 2, USM_FLAG_REPORTABLE = 4 };

#define USM_MAX_MESSAGE 65507 /* the largest UDP payload over IPv4 */
#define USM_MAX_VARBINDS 64
#define USM_MAX_ENGINE_ID 32
#define USM_MAX_USER 32

/* One TLV as read: its tag and its content, which points into the message. */
typedef struct BerItem {
    unsigned char tag;
    const unsigned char* data;
    size_t length;
} BerItem;

typedef struct BerWriter {
    unsigned char* data;
    size_t length;
    size_t capacity;
    int overflow; /* set once anything did not fit; the content is then unusable */
} BerWriter;

typedef struct BerReader {
    const unsigned char* next;
    size_t left;
} BerReader;

/* ---- writing ---- */
void BerPut(BerWriter* w, unsigned char tag, const unsigned char* content, size_t length);
/* INTEGER and the unsigned application types, in the shortest two's complement form. */
void BerPutInteger(BerWriter* w, unsigned char tag, int64_t value);
/* A constructed TLV whose content follows: BerOpen returns the mark that BerClose needs. */
size_t BerOpen(BerWriter* w, unsigned char tag);
void BerClose(BerWriter* w, size_t mark);
/* The content of an OID from "1.3.6.1..." (a leading dot is allowed): its length, 0 when malformed. */
size_t BerOidFromText(const char* text, unsigned char* out, size_t capacity);

/* ---- reading: each returns 1, or 0 when the input is malformed or does not match ---- */
int BerNext(BerReader* r, BerItem* item);
int BerExpect(BerReader* r, unsigned char tag, BerItem* item);
/* Signed content of up to 8 bytes. */
int BerInteger(const BerItem* item, int64_t* value);
/* Unsigned content of up to 64 bits (one leading zero byte allowed). */
int BerUnsigned(const BerItem* item, uint64_t* value);
/* ".1.3.6.1..." into out; 0 when malformed or when out is too small. */
int BerOidText(const BerItem* item, char* out, size_t capacity);

/* ---- the SNMPv3 message ---- */
typedef struct UsmHeader {
    int64_t msgId;
    int64_t maxSize;
    unsigned char flags;
    BerItem engineId;
    int64_t boots;
    int64_t time;
    BerItem user;
    size_t macOffset; /* where msgAuthenticationParameters' content lies in the message */
    size_t macLength;
    BerItem privParams;
    /* The scoped PDU's whole TLV when in clear, the encryptedPDU's content when encrypted. */
    BerItem data;
} UsmHeader;

typedef struct UsmVarBind {
    BerItem name;  /* OID content */
    BerItem value; /* tag and content */
} UsmVarBind;

typedef struct UsmPdu {
    BerItem contextEngineId;
    BerItem contextName;
    unsigned char type;
    int64_t requestId;
    int64_t errorStatus;
    int64_t errorIndex;
    size_t count;
    UsmVarBind vars[USM_MAX_VARBINDS];
} UsmPdu;

/* Parses a whole SNMPv3 USM message; 1 on success, 0 when it is not one. */
int UsmParseMessage(const unsigned char* message, size_t length, UsmHeader* header);
/* Parses a scoped PDU from its first byte; trailing bytes (DES padding) are ignored. 1 or 0. */
int UsmParseScopedPdu(const unsigned char* bytes, size_t length, UsmPdu* pdu);
/* Writes a scoped PDU; 1, or 0 when it does not fit. */
int UsmWriteScopedPdu(BerWriter* w, const UsmPdu* pdu);
/* Writes the message with header->macLength zero bytes as the MAC and sets header->macOffset;
 * data is the scoped PDU TLV, or the encrypted bytes when flags has USM_FLAG_PRIV. 1, or 0. */
int UsmWriteMessage(BerWriter* w, UsmHeader* header, const unsigned char* data, size_t length);

#endif /* USM_BER_H */
