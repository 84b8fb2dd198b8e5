#pragma once

#include <string>

#include "pool.h"

namespace gw {

// Gives the pool the leases of the file; those whose address lies outside the pool are left out. A missing file holds
// none. Throws usage_error that names the file when it is no lease file.
void read_lease_file(const std::string &path, address_pool &pool);

// Replaces the file in one step, mode 0600 (it holds cookies). Returns what failed, empty when nothing did; the old
// file stays then.
std::string write_lease_file(const std::string &path, const address_pool &pool);

}  // namespace gw
