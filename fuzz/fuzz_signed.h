// The signed image of the signature fuzz target, shared with the seed
// maker so that the committed seeds carry the manifest this key signed.
#pragma once

#include <vector>

#include "mkvelk.h"

namespace fuzz {

inline mkvelk::signing_key signed_image_key() { return mkvelk::signing_key_from_seed(mkvelk::bytes(32, 0x11)); }

// Release header, signature part (signed by `key`), "korm", one data part.
inline std::vector<mkvelk::part> signed_image_parts(const mkvelk::signing_key& key)
{
    return mkvelk::sign_parts({mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
                               mkvelk::korm("3,KNLS,0,-,-,-,1.0.1,1\n"), mkvelk::data("d", mkvelk::bytes(7, 3))},
                              {&key});
}

}  // namespace fuzz
