// The registry path of a product's key: "Software\Orvanta\PRODUCT\VERSION\" below
// HKEY_LOCAL_MACHINE, with a backslash at its end; "Software\Orvanta\PRODUCT\" when the version is
// empty. The product and version are UTF-8. Any thread.
#pragma once

#include <string>

namespace mst_util {

std::u16string product_key(const std::string& product, const std::string& version);

}  // namespace mst_util
