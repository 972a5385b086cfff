/* The daemon's answer to a handshake: the same whatever pieces it comes in, and never more than its own
 * lines. The first byte is the seed for the pieces. The receive thread's own functions are under test, so its
 * source is part of this program. */
#include "../../src/zebrecvthread.cpp" // NOLINT(bugprone-suspicious-include)

#include "fuzz.h"

#include <memory>
#include <string>

namespace
{

std::string answer(std::string_view bytes, uint32_t seed)
{
    const auto rt = std::make_unique<ezeb_runtime>();
    ezeb_mutex_init(&rt->namemutex);
    fuzz::serve(bytes, seed);
    ezeb_sb *sb = ezeb_sb_create(fuzz::descriptor);
    std::string text = read_handshake_reply(rt.get(), sb) ? "yes " : "no ";
    text += std::to_string(fuzz::unread() + (sb->end - sb->start)) + " ";
    ezeb_sharedtext *name = ezeb_instancename_ref(rt.get());
    text += name != nullptr ? name->text : "<null>";
    ezeb_sharedtext_unref(name);
    ezeb_sharedtext_unref(rt->instancename);
    ezeb_mutex_destroy(&rt->namemutex);
    ezeb_sb_free(sb);
    return text;
}

} // namespace

void fuzz_read(std::string_view input)
{
    fuzz::read_in_pieces(input, answer);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::check_pieces({reinterpret_cast<const char *>(data), size}, answer);
    return 0;
}
