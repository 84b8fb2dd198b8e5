#include "tlsc_utils.h"

#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tlsc_debug.h"

// ---- text -----------------------------------------------------------------------------------------------------------

void tlsc_copy_text(char *field, size_t size, const char *text) {
    if (!field || size == 0) {
        TLSC_ERROR("Null ptr received for field");
        return;
    }

    memset(field, 0, size);
    if (text) memcpy(field, text, strnlen(text, size - 1));
}

int32_t tlsc_decimal(const char *text) {
    if (!text) {
        TLSC_ERROR("Null ptr received for text");
        return 0;
    }

    return static_cast<int32_t>(strtoll(text, nullptr, 10));
}

// ---- checksum repair ------------------------------------------------------------------------------------------------
// Ones' complement sums do not care for the byte order of their words as long as all of them are loaded alike, so the
// words are taken as they are stored.

namespace {

constexpr size_t proto_off        = 9;  // of the IPv4 header, see RFC 791
constexpr size_t header_sum_off   = 10;
constexpr size_t tcp_checksum_off = 16;  // of the TCP header
constexpr size_t udp_checksum_off = 6;   // of the UDP header

uint32_t load_word(const uint8_t *bytes) {
    uint16_t word;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

void store_word(uint8_t *bytes, uint32_t value) {
    uint16_t word = static_cast<uint16_t>(value);
    memcpy(bytes, &word, sizeof(word));
}

uint32_t fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum;
}

uint32_t complement(uint32_t word) { return ~word & 0xFFFF; }

// RFC 1624, equation 3, with the old address already negated.
void repair_checksum(uint8_t *field, uint32_t new_addr, uint32_t negated_old_addr) {
    store_word(field, complement(fold(complement(load_word(field)) + new_addr + negated_old_addr)));
}

bool is_later_fragment(const uint8_t *packet) { return ((packet[6] & 0x1F) | packet[7]) != 0; }

}  // namespace

uint32_t tlsc_addr_sum(const uint8_t *bytes) {
    if (!bytes) {
        TLSC_ERROR("Null ptr received for bytes");
        return 0;
    }

    return load_word(bytes) + load_word(bytes + 2);
}

void tlsc_checksum(uint8_t *packet, uint32_t old_sum, size_t offset) {
    if (!packet) {
        TLSC_ERROR("Null ptr received for packet");
        return;
    }

    uint32_t negated_old_addr = complement(fold(old_sum));
    uint32_t new_addr         = fold(tlsc_addr_sum(packet + offset));
    repair_checksum(packet + header_sum_off, new_addr, negated_old_addr);

    if (is_later_fragment(packet)) return;  // It carries no transport header.

    uint8_t *transport = packet + static_cast<size_t>(packet[0] & 0x0F) * 4;
    switch (packet[proto_off]) {
    case IPPROTO_TCP: repair_checksum(transport + tcp_checksum_off, new_addr, negated_old_addr); break;
    case IPPROTO_UDP:
        // Zero means that the sender made no checksum.
        // By contract: a repaired checksum that comes out as zero is written as zero.
        if (load_word(transport + udp_checksum_off) != 0)
            repair_checksum(transport + udp_checksum_off, new_addr, negated_old_addr);
        break;
    case IPPROTO_ICMP: break;  // Its checksum does not cover the addresses.
    default: TLSC_ERROR("Got a packet(Non TCP/UDP/ICMP) whose checksum is not handled from tun");
    }
}

// ---- list -----------------------------------------------------------------------------------------------------------

namespace {

// Unlinks and frees the node that link points at. Returns its value.
int32_t remove_node(tlsc_list *list, tlsc_list_node **link) {
    tlsc_list_node *node  = *link;
    int32_t         value = node->value;

    *link = node->next;
    --list->count;
    free(node);
    return value;
}

}  // namespace

int32_t tlsc_insert_element_to_list(tlsc_list *list, int32_t value) {
    if (!list) {
        TLSC_ERROR("Null ptr received for list");
        return 0;
    }

    auto *node = static_cast<tlsc_list_node *>(malloc(sizeof(tlsc_list_node)));
    if (!node) {
        TLSC_ERROR("Memory allocation failed for list element");
        return 0;
    }

    *node      = {.next = list->head, .value = value};
    list->head = node;
    ++list->count;
    return 1;
}

int32_t tlsc_list_pop(tlsc_list *list) {
    if (!list) {
        TLSC_ERROR("Null ptr received for list");
        return 0;
    }
    if (list->count == 0) return 0;
    if (!list->head) {
        list->count = 0;
        return 0;
    }

    return remove_node(list, &list->head);
}

int32_t tlsc_list_remove(tlsc_list *list, int32_t value) {
    if (!list) {
        TLSC_ERROR("Null ptr received for list");
        return 0;
    }
    if (list->count == 0 || value == 0) return 0;

    for (tlsc_list_node **link = &list->head; *link; link = &(*link)->next)
        if ((*link)->value == value) return remove_node(list, link);
    return 0;
}

// ---- address records ------------------------------------------------------------------------------------------------

namespace {

// Fills the record from a numeric host text; false when the text is none. The record is written on success only.
bool convert_addr(const char *text, tlsc_addr *record) {
    addrinfo  hints{};
    addrinfo *found = nullptr;
    hints.ai_flags  = AI_NUMERICHOST;
    hints.ai_family = AF_UNSPEC;
    if (getaddrinfo(text, nullptr, &hints, &found) != 0) return false;

    tlsc_addr addr{};
    if (found->ai_family == AF_INET) {
        sockaddr_in ipv4;
        memcpy(&ipv4, found->ai_addr, sizeof(ipv4));
        memcpy(addr.ipv4, &ipv4.sin_addr, sizeof(addr.ipv4));
        addr.kind   = ADDR_IPV4;
        addr.family = AF_INET;
    } else if (found->ai_family == AF_INET6) {
        sockaddr_in6 ipv6;
        memcpy(&ipv6, found->ai_addr, sizeof(ipv6));
        memcpy(addr.ipv6, &ipv6.sin6_addr, sizeof(addr.ipv6));
        addr.kind   = ADDR_IPV6;
        addr.family = AF_INET6;
    }
    freeaddrinfo(found);
    if (addr.kind == ADDR_NONE) return false;

    *record = addr;
    return true;
}

}  // namespace

int32_t tlsc_addr_family(const char *text) {
    if (!text) {
        TLSC_ERROR("Null ptr received for addr text");
        return ADDR_NONE;
    }

    tlsc_addr addr{};
    return convert_addr(text, &addr) ? addr.kind : ADDR_NONE;
}

int32_t tlsc_parse_addr(const char *text, tlsc_addr *record) {
    if (!text || !record) {
        TLSC_ERROR("Null ptr received for addr text/record");
        return 0;
    }

    return convert_addr(text, record) ? 1 : 0;
}

int32_t tlsc_cmp_addr(const tlsc_addr *a, const tlsc_addr *b) {
    if (!a || !b) {
        TLSC_ERROR("Null ptr received for addr");
        return -1;
    }
    if (a->kind != b->kind) return -1;

    if (a->kind == ADDR_IPV4) return memcmp(a->ipv4, b->ipv4, sizeof(a->ipv4));
    if (a->kind == ADDR_IPV6) return memcmp(a->ipv6, b->ipv6, sizeof(a->ipv6));
    return -1;
}
