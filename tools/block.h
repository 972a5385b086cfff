/* Body blocks as JSON and back, without loss. */
#pragma once

#include "json.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <zeb.h>

namespace tool
{

struct block_deleter {
    void operator()(zeb_bb *block) const
    {
        zeb_bb_destroy(block);
    }
};
using block_owner = std::unique_ptr<zeb_bb, block_deleter>;

/* What a body holds when it is a body block. WHOLE tells whether encoding it gives the same octets again; a
 * block that was damaged on its way holds what came before the damage. */
struct decoded_block {
    std::unique_ptr<json> form;
    std::string text; /* indented, for people */
    bool whole = false;
};

/* Nothing when BODY is no body block. */
std::optional<decoded_block> decode_block(std::string_view body);

} // namespace tool
