/* What fuzz targets share. A target defines the two functions below; libFuzzer calls the first with inputs of
 * its own, and in every other build a small program calls both with the inputs on record.
 *
 * A target stops the process when a property does not hold, so that a run without sanitizers finds it as
 * well. */
#ifndef ZEB_TESTS_FUZZ_H
#define ZEB_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/* Reads the input and checks everything that should hold. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* Only lets the code under test read the input: this must do on a thread with a stack of 16384 bytes. */
void fuzz_read(std::string_view input);

namespace fuzz
{

/* ---- Properties ---- */

[[noreturn]] inline void fail(const char *what, const char *file, int line)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    abort();
}

#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::fail(#condition, __FILE__, __LINE__))

/* ---- Numbers ---- */

/* A row of numbers that depends on its seed alone. */
class row
{
  public:
    explicit row(uint32_t seed) : state(seed * 2654435761U + 1U) {}
    uint32_t next(uint32_t bound)
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return bound == 0 ? 0 : state % bound;
    }

  private:
    uint32_t state;
};

/* Takes numbers and texts off the front of an input; zeros and nothing once it is used up. */
class cursor
{
  public:
    explicit cursor(std::string_view input) : rest(input) {}

    bool empty() const
    {
        return rest.empty();
    }
    uint8_t byte()
    {
        if (rest.empty())
            return 0;
        const auto value = static_cast<uint8_t>(rest.front());
        rest.remove_prefix(1);
        return value;
    }
    std::string_view text(size_t length)
    {
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(taken.size());
        return taken;
    }
    std::string_view all()
    {
        return text(rest.size());
    }
    /* Up to the next line feed, which is taken and left out. */
    std::string_view line()
    {
        const std::string_view taken = text(rest.find('\n'));
        byte();
        return taken;
    }

  private:
    std::string_view rest;
};

/* ---- Lines ---- */

/* Gives TAKE each line of an input without its end. */
template <typename Take>
void each_line(std::string_view input, Take take)
{
    cursor rest(input);
    while (!rest.empty())
        take(rest.line());
}

/* ---- Pieces ---- */

/* The first byte of an input is the seed for the pieces in which the rest of it comes. */
template <typename Read>
void read_in_pieces(std::string_view input, Read read)
{
    cursor rest(input);
    const uint8_t seed = rest.byte();
    read(rest.all(), seed + 1U);
}

/* What comes out must not depend on the pieces: seed 0 gives everything at once. */
template <typename Outcome>
void check_pieces(std::string_view input, Outcome outcome)
{
    read_in_pieces(input, [&](std::string_view bytes, uint32_t seed) {
        FUZZ_CHECK(outcome(bytes, 0) == outcome(bytes, seed));
    });
}

/* ---- Bytes for the library's reads ---- */

/* A descriptor that is none: what the library reads from it comes from here, and what it writes to it is
 * thrown away. */
constexpr int descriptor = 1 << 20;

/* From here on reads of `descriptor` get BYTES, which must stay, and then the end of the stream. Seed 0 gives
 * as much as is asked for; any other seed cuts them into pieces of a length of its own choice. */
void serve(std::string_view bytes, uint32_t seed);

/* What has not been read. */
size_t unread();

} // namespace fuzz

#endif
