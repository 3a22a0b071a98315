#include "usm_ber.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---- writing ---- */

static size_t LengthOfLength(size_t length) { return length < 0x80 ? 1 : length <= 0xff ? 2 : 3; }

static void PutLength(unsigned char* out, size_t length) {
    if (length < 0x80) {
        out[0] = (unsigned char)length;
    } else if (length <= 0xff) {
        out[0] = 0x81;
        out[1] = (unsigned char)length;
    } else {
        out[0] = 0x82;
        out[1] = (unsigned char)(length >> 8);
        out[2] = (unsigned char)length;
    }
}

static int Room(BerWriter* w, size_t count) {
    if (w->overflow || count > w->capacity - w->length) w->overflow = 1;
    return !w->overflow;
}

void BerPut(BerWriter* w, unsigned char tag, const unsigned char* content, size_t length) {
    size_t header = 1 + LengthOfLength(length);
    if (length > 0xffff || !Room(w, header + length)) {
        w->overflow = 1;
        return;
    }
    w->data[w->length] = tag;
    PutLength(w->data + w->length + 1, length);
    /* An empty OCTET STRING may come without a content pointer. */
    if (length > 0) memcpy(w->data + w->length + header, content, length);
    w->length += header + length;
}

void BerPutInteger(BerWriter* w, unsigned char tag, int64_t value) {
    unsigned char bytes[9];
    size_t first = 0;
    /* Nine bytes: a 64-bit unsigned value (Counter64) can need a leading zero byte. */
    bytes[0] = value < 0 ? 0xff : 0x00;
    for (int i = 0; i < 8; ++i) bytes[1 + i] = (unsigned char)((uint64_t)value >> (56 - 8 * i));
    /* Shortest form: drop a leading byte while the next one keeps the sign. */
    while (first < 8 && ((bytes[first] == 0x00 && bytes[first + 1] < 0x80) ||
                         (bytes[first] == 0xff && bytes[first + 1] >= 0x80))) {
        ++first;
    }
    BerPut(w, tag, bytes + first, 9 - first);
}

size_t BerOpen(BerWriter* w, unsigned char tag) {
    if (Room(w, 1)) w->data[w->length++] = tag;
    return w->length;
}

void BerClose(BerWriter* w, size_t mark) {
    if (w->overflow) return;
    size_t length = w->length - mark;
    size_t extra = LengthOfLength(length);
    if (length > 0xffff || !Room(w, extra)) {
        w->overflow = 1;
        return;
    }
    /* The content was written first; slide it over to make room for its length. */
    memmove(w->data + mark + extra, w->data + mark, length);
    PutLength(w->data + mark, length);
    w->length += extra;
}

size_t BerOidFromText(const char* text, unsigned char* out, size_t capacity) {
    unsigned long arcs[128] = {0};
    size_t count = 0, used = 0;
    const char* p = text;
    if (*p == '.') ++p;
    while (*p != '\0') {
        char* end = NULL;
        if (*p < '0' || *p > '9' || count == sizeof arcs / sizeof arcs[0]) return 0;
        unsigned long long arc = strtoull(p, &end, 10);
        if (arc > 0xffffffffULL || (*end != '.' && *end != '\0') || (*end == '.' && end[1] == '\0')) return 0;
        arcs[count++] = (unsigned long)arc;
        p = *end == '.' ? end + 1 : end;
    }
    if (count < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] > 39)) return 0;
    arcs[1] += 40 * arcs[0];
    for (size_t i = 1; i < count; ++i) {
        unsigned char base128[5];
        size_t n = 0;
        unsigned long arc = arcs[i];
        do {
            base128[n++] = (unsigned char)(arc & 0x7f);
            arc >>= 7;
        } while (arc != 0);
        if (used + n > capacity) return 0;
        while (n > 0) {
            --n;
            out[used++] = (unsigned char)(base128[n] | (n > 0 ? 0x80 : 0));
        }
    }
    return used;
}

/* ---- reading ---- */

int BerNext(BerReader* r, BerItem* item) {
    if (r->left < 2) return 0;
    const unsigned char* p = r->next;
    size_t length = p[1], header = 2;
    if (length == 0x81 || length == 0x82) {
        size_t bytes = length & 0x7f;
        if (r->left < 2 + bytes) return 0;
        length = bytes == 1 ? p[2] : ((size_t)p[2] << 8) | p[3];
        header += bytes;
    } else if (length >= 0x80) {
        return 0; /* indefinite or longer than this message shape can be */
    }
    if (length > r->left - header) return 0;
    item->tag = p[0];
    item->data = p + header;
    item->length = length;
    r->next += header + length;
    r->left -= header + length;
    return 1;
}

int BerExpect(BerReader* r, unsigned char tag, BerItem* item) { return BerNext(r, item) && item->tag == tag; }

int BerInteger(const BerItem* item, int64_t* value) {
    if (item->length == 0 || item->length > 8) return 0;
    uint64_t v = (item->data[0] & 0x80) ? ~(uint64_t)0 : 0;
    for (size_t i = 0; i < item->length; ++i) v = (v << 8) | item->data[i];
    *value = (int64_t)v;
    return 1;
}

int BerUnsigned(const BerItem* item, uint64_t* value) {
    const unsigned char* p = item->data;
    size_t n = item->length;
    if (n > 1 && p[0] == 0) {
        ++p;
        --n;
    }
    if (n == 0 || n > 8) return 0;
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
    *value = v;
    return 1;
}

int BerOidText(const BerItem* item, char* out, size_t capacity) {
    size_t used = 0;
    uint64_t arc = 0;
    int first = 1;
    if (item->length == 0 || capacity == 0) return 0;
    for (size_t i = 0; i < item->length; ++i) {
        arc = (arc << 7) | (item->data[i] & 0x7f);
        if (arc > 0xffffffffULL) return 0;
        if (item->data[i] & 0x80) continue;
        int n;
        if (first) {
            unsigned long top = arc < 40 ? 0 : arc < 80 ? 1 : 2;
            n = snprintf(out + used, capacity - used, ".%lu.%llu", top, (unsigned long long)(arc - 40 * top));
            first = 0;
        } else {
            n = snprintf(out + used, capacity - used, ".%llu", (unsigned long long)arc);
        }
        if (n < 0 || (size_t)n >= capacity - used) return 0;
        used += (size_t)n;
        arc = 0;
    }
    return (item->data[item->length - 1] & 0x80) == 0;
}

/* ---- the message ---- */

static int Int(BerReader* r, int64_t* value) {
    BerItem item;
    return BerExpect(r, BER_INTEGER, &item) && BerInteger(&item, value);
}

int UsmParseMessage(const unsigned char* message, size_t length, UsmHeader* h) {
    BerReader whole = {message, length}, r, global, sec, usm;
    BerItem item, flags, model, params;
    int64_t version, securityModel;
    memset(h, 0, sizeof *h);
    if (!BerExpect(&whole, BER_SEQUENCE, &item) || whole.left != 0) return 0;
    r.next = item.data;
    r.left = item.length;
    if (!Int(&r, &version) || version != 3) return 0;
    if (!BerExpect(&r, BER_SEQUENCE, &item)) return 0;
    global.next = item.data;
    global.left = item.length;
    if (!Int(&global, &h->msgId) || !Int(&global, &h->maxSize) || !BerExpect(&global, BER_OCTETS, &flags) ||
        flags.length != 1 || !BerExpect(&global, BER_INTEGER, &model) || !BerInteger(&model, &securityModel) ||
        securityModel != 3) {
        return 0;
    }
    h->flags = flags.data[0];
    /* msgSecurityParameters: an OCTET STRING holding the USM SEQUENCE. */
    if (!BerExpect(&r, BER_OCTETS, &params)) return 0;
    sec.next = params.data;
    sec.left = params.length;
    if (!BerExpect(&sec, BER_SEQUENCE, &item) || sec.left != 0) return 0;
    usm.next = item.data;
    usm.left = item.length;
    if (!BerExpect(&usm, BER_OCTETS, &h->engineId) || h->engineId.length > USM_MAX_ENGINE_ID ||
        !Int(&usm, &h->boots) || !Int(&usm, &h->time) || !BerExpect(&usm, BER_OCTETS, &h->user) ||
        h->user.length > USM_MAX_USER || !BerExpect(&usm, BER_OCTETS, &item) ||
        !BerExpect(&usm, BER_OCTETS, &h->privParams) || usm.left != 0) {
        return 0;
    }
    h->macOffset = (size_t)(item.data - message);
    h->macLength = item.length;
    /* msgData: the scoped PDU in clear, or an OCTET STRING holding it encrypted. */
    const unsigned char* start = r.next;
    if (!BerNext(&r, &h->data) || r.left != 0) return 0;
    if (h->flags & USM_FLAG_PRIV) return h->data.tag == BER_OCTETS;
    if (h->data.tag != BER_SEQUENCE) return 0;
    h->data.length += (size_t)(h->data.data - start);
    h->data.data = start;
    return 1;
}

int UsmParseScopedPdu(const unsigned char* bytes, size_t length, UsmPdu* pdu) {
    BerReader whole = {bytes, length}, r, fields, list;
    BerItem item;
    memset(pdu, 0, sizeof *pdu);
    if (!BerExpect(&whole, BER_SEQUENCE, &item)) return 0;
    r.next = item.data;
    r.left = item.length;
    if (!BerExpect(&r, BER_OCTETS, &pdu->contextEngineId) || !BerExpect(&r, BER_OCTETS, &pdu->contextName) ||
        !BerNext(&r, &item) || (item.tag & 0xe0) != 0xa0 || r.left != 0) {
        return 0;
    }
    pdu->type = item.tag;
    fields.next = item.data;
    fields.left = item.length;
    if (!Int(&fields, &pdu->requestId) || !Int(&fields, &pdu->errorStatus) || !Int(&fields, &pdu->errorIndex) ||
        !BerExpect(&fields, BER_SEQUENCE, &item) || fields.left != 0) {
        return 0;
    }
    list.next = item.data;
    list.left = item.length;
    while (list.left > 0) {
        BerReader bind;
        if (pdu->count == USM_MAX_VARBINDS || !BerExpect(&list, BER_SEQUENCE, &item)) return 0;
        bind.next = item.data;
        bind.left = item.length;
        UsmVarBind* v = &pdu->vars[pdu->count++];
        if (!BerExpect(&bind, BER_OID, &v->name) || !BerNext(&bind, &v->value) || bind.left != 0) return 0;
    }
    return 1;
}

int UsmWriteScopedPdu(BerWriter* w, const UsmPdu* pdu) {
    size_t scoped = BerOpen(w, BER_SEQUENCE);
    BerPut(w, BER_OCTETS, pdu->contextEngineId.data, pdu->contextEngineId.length);
    BerPut(w, BER_OCTETS, pdu->contextName.data, pdu->contextName.length);
    size_t body = BerOpen(w, pdu->type);
    BerPutInteger(w, BER_INTEGER, pdu->requestId);
    BerPutInteger(w, BER_INTEGER, pdu->errorStatus);
    BerPutInteger(w, BER_INTEGER, pdu->errorIndex);
    size_t list = BerOpen(w, BER_SEQUENCE);
    for (size_t i = 0; i < pdu->count; ++i) {
        size_t bind = BerOpen(w, BER_SEQUENCE);
        BerPut(w, BER_OID, pdu->vars[i].name.data, pdu->vars[i].name.length);
        BerPut(w, pdu->vars[i].value.tag, pdu->vars[i].value.data, pdu->vars[i].value.length);
        BerClose(w, bind);
    }
    BerClose(w, list);
    BerClose(w, body);
    BerClose(w, scoped);
    return !w->overflow;
}

int UsmWriteMessage(BerWriter* w, UsmHeader* h, const unsigned char* data, size_t length) {
    static const unsigned char kZeros[64] = {0};
    size_t start = w->length;
    if (h->macLength > sizeof kZeros) return 0;
    size_t message = BerOpen(w, BER_SEQUENCE);
    BerPutInteger(w, BER_INTEGER, 3);
    size_t global = BerOpen(w, BER_SEQUENCE);
    BerPutInteger(w, BER_INTEGER, h->msgId);
    BerPutInteger(w, BER_INTEGER, h->maxSize);
    BerPut(w, BER_OCTETS, &h->flags, 1);
    BerPutInteger(w, BER_INTEGER, 3); /* the user-based security model */
    BerClose(w, global);
    size_t params = BerOpen(w, BER_OCTETS);
    size_t usm = BerOpen(w, BER_SEQUENCE);
    BerPut(w, BER_OCTETS, h->engineId.data, h->engineId.length);
    BerPutInteger(w, BER_INTEGER, h->boots);
    BerPutInteger(w, BER_INTEGER, h->time);
    BerPut(w, BER_OCTETS, h->user.data, h->user.length);
    BerPut(w, BER_OCTETS, kZeros, h->macLength);
    BerPut(w, BER_OCTETS, h->privParams.data, h->privParams.length);
    BerClose(w, usm);
    BerClose(w, params);
    if (h->flags & USM_FLAG_PRIV) {
        BerPut(w, BER_OCTETS, data, length);
    } else if (length > 0 && Room(w, length)) {
        memcpy(w->data + w->length, data, length);
        w->length += length;
    }
    BerClose(w, message);
    if (w->overflow) return 0;
    /* The MAC's place is only known once every length in front of it is: read it back. */
    UsmHeader written;
    if (!UsmParseMessage(w->data + start, w->length - start, &written)) return 0;
    h->macOffset = start + written.macOffset;
    return 1;
}
