#include "gateway_harness.h"

#include "lease_file.h"
#include "pool.h"
#include "tun.h"

using namespace gw;

namespace {

uint32_t address(const char *text) { return *parse_ipv4(text); }

// Five addresses, of which .1 is the gateway's own.
address_pool small_pool() { return address_pool({address("10.0.0.1"), address("10.0.0.5")}, {address("10.0.0.1")}); }

address_pool::applicant asker(const char *device, std::optional<uint32_t> wanted = {}, const char *cookie = "",
                              const char *identity = "id") {
    return {identity, device, cookie, wanted};
}

}  // namespace

TEST(gateway_pool, leases_survive_in_their_file) {
    gwtest::temp_dir dir;
    std::string      path = dir.file("leases");
    {
        address_pool pool({10, 19}, {10});
        read_lease_file(path, pool);  // none yet
        pool.acquire({"dev", "d1", "", std::nullopt})->cookie      = "0123456789";
        pool.acquire({"dev", "d2 \"quoted\"", "", 15})->own_cookie = "abc";
        EXPECT_EQ(write_lease_file(path, pool), "");
    }
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    address_pool pool({10, 19}, {10});
    read_lease_file(path, pool);
    EXPECT_EQ(pool.leases().size(), 2u);
    EXPECT_EQ(pool.acquire({"dev", "d1", "", std::nullopt})->cookie, "0123456789");
    EXPECT_EQ(pool.acquire({"dev", "d2 \"quoted\"", "", std::nullopt})->address, 15u);
    EXPECT_EQ(pool.acquire({"dev", "d3", "", 11})->address, 12u) << "11 is held, by the first";

    address_pool elsewhere({100, 110}, {});
    read_lease_file(path, elsewhere);
    EXPECT_EQ(elsewhere.leases().size(), 0u);
}

TEST(gateway_pool, what_is_no_lease_file_is_refused_and_stays) {
    gwtest::temp_dir dir;
    address_pool     pool({10, 19}, {});
    for (const char *text : {"", "[]", "{", "{\"schema\":2,\"leases\":[]}", "{\"schema\":1,\"leases\":[{}]}",
                             "{\"schema\":1,\"leases\":[{\"identity\":\"a\",\"device_id\":\"b\",\"address\":\"x\","
                             "\"own_cookie\":\"\",\"cookie\":\"\"}]}"}) {
        std::string path = dir.write("leases", text);
        EXPECT_THROW(read_lease_file(path, pool), usage_error) << text;
        EXPECT_EQ(pool.leases().size(), 0u);
        EXPECT_TRUE(std::filesystem::exists(path));
    }
}

TEST(gateway_pool, a_lease_file_that_cannot_be_written_is_told_and_the_old_one_stays) {
    address_pool pool({10, 19}, {});
    EXPECT_EQ(write_lease_file("/nowhere/leases", pool),
              "cannot write the lease file /nowhere/leases.new: No such file or directory");
}

TEST(gateway_pool, first_address_is_the_first_that_is_not_excluded) {
    address_pool pool = small_pool();
    EXPECT_EQ(ipv4_text(pool.acquire(asker("a"))->address), "10.0.0.2");
    EXPECT_EQ(ipv4_text(pool.acquire(asker("b"))->address), "10.0.0.3");
}

TEST(gateway_pool, a_device_keeps_its_address_while_it_is_away) {
    address_pool   pool  = small_pool();
    address_lease *lease = pool.acquire(asker("a"));
    pool.release(*lease);
    (void)pool.acquire(asker("b"));
    EXPECT_EQ(pool.acquire(asker("a")), lease);
}

TEST(gateway_pool, the_same_device_id_under_another_identity_is_another_device) {
    address_pool pool = small_pool();
    EXPECT_NE(pool.acquire(asker("a", {}, "", "one"))->address, pool.acquire(asker("a", {}, "", "two"))->address);
}

TEST(gateway_pool, an_address_asked_for_is_granted_when_it_is_free) {
    address_pool pool = small_pool();
    EXPECT_EQ(ipv4_text(pool.acquire(asker("a", address("10.0.0.4")))->address), "10.0.0.4");
}

TEST(gateway_pool, an_address_outside_the_pool_or_excluded_is_not_granted) {
    address_pool pool = small_pool();
    EXPECT_EQ(ipv4_text(pool.acquire(asker("a", address("10.0.0.6")))->address), "10.0.0.2");
    EXPECT_EQ(ipv4_text(pool.acquire(asker("b", address("10.0.0.1")))->address), "10.0.0.3");
}

TEST(gateway_pool, an_address_of_a_connected_device_is_not_granted_and_of_an_absent_one_is) {
    address_pool   pool = small_pool();
    address_lease *held = pool.acquire(asker("a", address("10.0.0.4")));
    EXPECT_NE(ipv4_text(pool.acquire(asker("b", address("10.0.0.4")))->address), "10.0.0.4");
    pool.release(*held);
    EXPECT_EQ(ipv4_text(pool.acquire(asker("c", address("10.0.0.4")))->address), "10.0.0.4");
}

TEST(gateway_pool, a_full_pool_gives_away_the_address_of_the_device_absent_for_longest) {
    address_pool   pool = small_pool();
    address_lease *leases[4];
    const char    *names[4] = {"a", "b", "c", "d"};
    for (int i = 0; i < 4; i++) leases[i] = pool.acquire(asker(names[i]));
    EXPECT_EQ(pool.acquire(asker("e")), nullptr);
    uint32_t first_gone = leases[2]->address;
    pool.release(*leases[2]);
    pool.release(*leases[1]);
    EXPECT_EQ(pool.acquire(asker("e"))->address, first_gone);
    EXPECT_EQ(pool.leases().size(), 4u);
}

TEST(gateway_pool, a_second_connection_of_a_device_shares_the_lease) {
    address_pool   pool  = small_pool();
    address_lease *lease = pool.acquire(asker("a"));
    EXPECT_EQ(pool.acquire(asker("a", lease->address)), lease);
    EXPECT_EQ(lease->connections, 2u);
    pool.release(*lease);
    EXPECT_EQ(lease->connections, 1u);
}

TEST(gateway_pool, devices_without_an_id_are_told_apart_by_address_and_cookie) {
    address_pool   pool   = small_pool();
    address_lease *first  = pool.acquire(asker(""));
    address_lease *second = pool.acquire(asker(""));
    EXPECT_NE(first, second);
    EXPECT_EQ(pool.acquire(asker("", second->address)), second);
    first->cookie = "0123456789";
    EXPECT_EQ(pool.acquire(asker("", {}, "0123456789")), first);
}

TEST(gateway_pool, a_device_without_an_id_gets_the_lease_of_an_absent_one) {
    address_pool   pool  = small_pool();
    address_lease *first = pool.acquire(asker(""));
    pool.release(*first);
    EXPECT_EQ(pool.acquire(asker("")), first);
}

TEST(gateway_pool, a_cookie_is_known_by_its_first_ten_characters_and_with_an_old_tail) {
    address_lease lease;
    EXPECT_FALSE(address_pool::is_known_cookie(lease, ""));
    lease.cookie = "0123456789abc";
    EXPECT_TRUE(address_pool::is_known_cookie(lease, "0123456789"));
    EXPECT_FALSE(address_pool::is_known_cookie(lease, "012345678"));
    lease.cookie = "xyz";
    EXPECT_TRUE(address_pool::is_known_cookie(lease, "xyz3456789"));
}

TEST(gateway_pool, a_lease_moves_only_to_an_address_that_no_connected_device_holds) {
    address_pool   pool = small_pool();
    address_lease *a    = pool.acquire(asker("a"));
    address_lease *b    = pool.acquire(asker("b"));
    EXPECT_FALSE(pool.move(*a, b->address));
    EXPECT_FALSE(pool.move(*a, address("10.0.0.9")));
    EXPECT_TRUE(pool.move(*a, address("10.0.0.5")));
    EXPECT_EQ(ipv4_text(a->address), "10.0.0.5");
}

TEST(gateway_pool, a_range_is_covered_exactly_by_its_networks) {
    auto     networks = networks_of({address("10.0.0.1"), address("10.0.0.6")});
    uint64_t covered  = 0;
    for (const ipv4_cidr &network : networks) {
        EXPECT_GE(network.network(), address("10.0.0.1"));
        EXPECT_LE(network.broadcast(), address("10.0.0.6"));
        covered += network.broadcast() - network.network() + 1;
    }
    EXPECT_EQ(covered, 6u);
    EXPECT_EQ(networks.size(), 4u);  // .1/32 .2/31 .4/31 .6/32
    EXPECT_EQ(networks_of({0, 0xffffffff}).size(), 1u);
    EXPECT_EQ(cidr_text(networks_of({address("10.1.0.0"), address("10.1.255.255")})[0]), "10.1.0.0/16");
}
