/* Gives a target the inputs on record: every file below the folders named, on the main thread with all
 * checks, and, where a size is given, once more on a thread with a stack of that many bytes. Fails when there
 * is no input.
 *
 *   fuzz_TARGET [--stack BYTES] FOLDER... */
#include "fuzz.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pthread.h>
#include <string>

namespace
{

std::string contents(const std::filesystem::path &file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void *read_on_thread(void *input)
{
    fuzz_read(*static_cast<const std::string *>(input));
    return nullptr;
}

bool run_on_small_stack(const std::string &input, size_t stack)
{
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    const bool started =
        pthread_attr_setstacksize(&attributes, stack) == 0 &&
        pthread_create(&thread, &attributes, read_on_thread, const_cast<std::string *>(&input)) == 0;
    pthread_attr_destroy(&attributes);
    return started && pthread_join(thread, nullptr) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    size_t stack = 0;
    int at = 1;
    if (argc > 2 && strcmp(argv[1], "--stack") == 0) {
        stack = strtoul(argv[2], nullptr, 10);
        at = 3;
    }
    size_t count = 0;
    for (; at < argc; at++) {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[at])) {
            if (!entry.is_regular_file())
                continue;
            const std::string input = contents(entry.path());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
            if (stack > 0 && !run_on_small_stack(input, stack)) {
                fprintf(stderr, "no thread with a stack of %zu bytes\n", stack);
                return 1;
            }
            count++;
        }
    }
    printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
