// Packet checksum repair, address records, a small list, and the one bounded text copy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tlsc.h"

extern "C" {

// Clears the whole field, then copies at most size - 1 characters of text. The field ends up NUL-terminated; an
// over-long text is cut silently. text may be null (the field is then empty). Any thread.
void tlsc_copy_text(char *field, size_t size, const char *text);

// The text, or "(null)" for a null one, so that a %s never meets a null pointer.
inline const char *tlsc_text_or_null(const char *text) { return text ? text : "(null)"; }

// Decimal conversion as atoi(3) does it on the systems where long has 64 bits, without its undefined overflow: the low
// 32 bits count. Any thread.
int32_t tlsc_decimal(const char *text);

// The largest IPv4 header, and a TCP header up to behind its checksum, in bytes.
constexpr size_t tlsc_checksum_reach = 80;

// Repairs the IPv4 header checksum and the TCP or UDP checksum after the address at byte offset (12 source,
// 16 destination) was overwritten, by incremental update (RFC 1624). old_sum is the plain sum of the two 16-bit
// halves of the old address as they stood in the packet. The packet is IPv4 and lies in a buffer of at least
// tlsc_checksum_reach readable bytes, whatever its own length. Tunnel thread.
void tlsc_checksum(uint8_t *packet, uint32_t old_sum, size_t offset);

// The plain sum of the two 16-bit halves of the IPv4 address at bytes, taken as stored: old_sum of tlsc_checksum.
uint32_t tlsc_addr_sum(const uint8_t *bytes);

struct tlsc_list_node {
    tlsc_list_node *next;
    int32_t         value;
};

struct tlsc_list {
    int32_t         count;
    tlsc_list_node *head;
};

// Puts a new node in front. Returns 1, or 0 for a null list or when the allocation fails (logged).
int32_t tlsc_insert_element_to_list(tlsc_list *list, int32_t value);

// Removes the first node and returns its value; 0 for a null or empty list.
int32_t tlsc_list_pop(tlsc_list *list);

// Removes the first node that holds value and returns value; 0 when there is none, and always for value 0.
int32_t tlsc_list_remove(tlsc_list *list, int32_t value);

// The kind of a numeric host address: 1 IPv4, 2 IPv6, 0 otherwise. No name is looked up; see getaddrinfo(3).
int32_t tlsc_addr_family(const char *text);

// Fills the record from a numeric address text. Returns 1, or 0 for null arguments or a text that is no address.
int32_t tlsc_parse_addr(const char *text, tlsc_addr *record);

// 0 when both records are of the same kind and hold the same address, otherwise non-zero.
int32_t tlsc_cmp_addr(const tlsc_addr *a, const tlsc_addr *b);

}  // extern "C"
