/* The library as it ships: what it exports, what it needs, and whether its header is one. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

/* Output of COMMAND, both streams; fails the test when it does. */
std::string run(const std::string &command)
{
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
        return "";
    }
    char piece[4096];
    size_t n;
    while ((n = fread(piece, 1, sizeof(piece), pipe)) > 0)
        output.append(piece, n);
    EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
    return output;
}

std::vector<std::string> lines(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> found;
    for (std::string line; std::getline(stream, line);)
        found.push_back(line);
    return found;
}

std::vector<std::string> words(const std::string &line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

/* The first line of TEXT that holds WANTED; fails the test when there is none. */
std::string lineWith(const std::string &text, const std::string &wanted)
{
    for (const std::string &line : lines(text))
        if (line.find(wanted) != std::string::npos)
            return line;
    ADD_FAILURE() << "no " << wanted << " in\n" << text;
    return "";
}

std::vector<std::string> exportList()
{
    std::ifstream file(ZEB_EXPORTS);
    std::vector<std::string> names{std::istream_iterator<std::string>(file), {}};
    std::sort(names.begin(), names.end());
    return names;
}

/* A directory of this test's own, gone with it. */
class scratch
{
  public:
    scratch()
    {
        char pattern[] = "/tmp/zeb-library-XXXXXX";
        const char *made = mkdtemp(pattern);
        EXPECT_NE(made, nullptr);
        path = made != nullptr ? made : "";
    }
    ~scratch()
    {
        for (const std::string &file : files)
            unlink(file.c_str());
        rmdir(path.c_str());
    }
    scratch(const scratch &) = delete;
    scratch &operator=(const scratch &) = delete;

    std::string file(const std::string &name)
    {
        files.push_back(path + "/" + name);
        return files.back();
    }

    std::string write(const std::string &name, const std::string &contents)
    {
        std::string where = file(name);
        std::ofstream(where) << contents;
        return where;
    }

  private:
    std::string path;
    std::vector<std::string> files;
};

const std::string READELF = ZEB_READELF " -W ";
const std::string NM = ZEB_NM " ";
const std::string C_FLAGS =
    " -std=c11 -pedantic -Wall -Wextra -Werror -Wstrict-prototypes -I " ZEB_PUBLIC_DIR " ";
const std::string CXX_FLAGS = " -std=c++17 -pedantic -Wall -Wextra -Werror -I " ZEB_PUBLIC_DIR " ";

TEST(Library, ExportsExactlyTheListedFunctions)
{
    std::vector<std::string> exported;
    for (const std::string &line : lines(run(NM + "-D --defined-only " ZEB_LIBRARY))) {
        const std::vector<std::string> columns = words(line);
        ASSERT_EQ(columns.size(), 3U) << line;
        const std::string &kind = columns[1];
        const std::string &name = columns[2];
        if (kind == "A")
            continue; /* the version node itself */
        EXPECT_EQ(kind, "T") << name << " is no function";
        exported.push_back(name.substr(0, name.find('@')));
    }
    std::sort(exported.begin(), exported.end());
    EXPECT_EQ(exported, exportList());
    EXPECT_GT(exported.size(), 100U);
}

/* Every name that begins with zeb_ and stands before an opening parenthesis. */
std::vector<std::string> declaredFunctions(const std::string &header)
{
    std::vector<std::string> names;
    for (size_t at = 0; (at = header.find("zeb_", at)) != std::string::npos;) {
        size_t end = at;
        while (isalnum(static_cast<unsigned char>(header[end])) || header[end] == '_')
            end++;
        const bool whole =
            at == 0 || (!isalnum(static_cast<unsigned char>(header[at - 1])) && header[at - 1] != '_');
        const size_t next = header.find_first_not_of(" \n", end);
        if (whole && next != std::string::npos && header[next] == '(')
            names.push_back(header.substr(at, end - at));
        at = end;
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Library, TheHeaderDeclaresExactlyTheListedFunctions)
{
    EXPECT_EQ(declaredFunctions(run(ZEB_C_COMPILER " -E -P -x c " ZEB_PUBLIC_DIR "/zeb.h")), exportList());
}

TEST(Library, NeedsTheCLibraryAlone)
{
#ifdef ZEB_INSTRUMENTED
    GTEST_SKIP() << "an instrumented library needs the run-time of its instrumentation";
#endif
    std::vector<std::string> needed;
    for (const std::string &line : lines(run(READELF + "-d " ZEB_LIBRARY)))
        if (line.find("(NEEDED)") != std::string::npos)
            needed.push_back(line.substr(line.find('[')));
    EXPECT_EQ(needed, (std::vector<std::string>{"[libc.so.6]"}));
}

TEST(Library, UsesNothingOfTheCxxRunTime)
{
#ifdef ZEB_INSTRUMENTED
    GTEST_SKIP() << "an instrumented library uses the run-time of its instrumentation";
#endif
    static constexpr const char *forbidden[] = {" _Zn",
                                                " _Zd",
                                                " __cxa_throw",
                                                " __cxa_begin_catch",
                                                " __cxa_guard",
                                                " __cxa_pure_virtual",
                                                " _Unwind_",
                                                " __gxx_",
                                                " _ZNSt",
                                                " _ZSt",
                                                " _ZNKSt",
                                                " _ZTV",
                                                " __tls_get_addr",
                                                " __dynamic_cast"};
    size_t undefined = 0;
    for (const std::string &line : lines(run(NM + "-D --undefined-only " ZEB_LIBRARY))) {
        for (const char *prefix : forbidden)
            EXPECT_EQ(line.find(prefix), std::string::npos) << line;
        undefined++;
    }
    EXPECT_GT(undefined, 20U) << "the list was read";
}

TEST(Library, IsBoundAtOnceAndNeverUnloaded)
{
    const std::string dynamic = run(READELF + "-d " ZEB_LIBRARY);
    const std::string flags = lineWith(dynamic, "(FLAGS_1)");
    EXPECT_NE(flags.find("NOW"), std::string::npos) << flags;
    EXPECT_NE(flags.find("NODELETE"), std::string::npos) << flags;
    EXPECT_NE(dynamic.find("[libzeb.so.1]"), std::string::npos) << "its soname";
}

TEST(Library, HasNoExecutableStackAndReadOnlyRelocations)
{
    const std::string headers = run(READELF + "-l " ZEB_LIBRARY);
    EXPECT_EQ(words(lineWith(headers, "GNU_STACK")).at(6), "RW");
    EXPECT_NE(headers.find("GNU_RELRO"), std::string::npos);
}

TEST(Library, RunsNothingWhenItIsLoadedOrUnloaded)
{
#ifdef ZEB_INSTRUMENTED
    GTEST_SKIP() << "instrumentation has constructors";
#endif
    /* One entry each: what the compiler's start files put there. */
    const std::string sections = run(READELF + "-S " ZEB_LIBRARY);
    for (const char *section : {" .init_array ", " .fini_array "}) {
        const std::string line = lineWith(sections, section);
        EXPECT_EQ(std::stoul(words(line.substr(line.find(section))).at(4), nullptr, 16), sizeof(void *))
            << line;
    }
}

TEST(Library, TheHeaderIsPlainC11AndCxx17)
{
    scratch dir;
    const std::string c =
        dir.write("header.c", "#include <zeb.h>\n#include <zeb.h>\nint main(void) { return 0; }\n");
    run(ZEB_C_COMPILER + C_FLAGS + "-fsyntax-only " + c);
    const std::string cxx =
        dir.write("header.cpp", "#include <zeb.h>\n#include <zeb.h>\nint main() { return 0; }\n");
    run(ZEB_CXX_COMPILER + CXX_FLAGS + "-fsyntax-only " + cxx);
}

/* Calls one function for real; the others are named, so that each must be declared, found and linked. */
std::string programNamingEveryFunction()
{
    std::string program =
        "#include <zeb.h>\ntypedef void (*function)(void);\nstatic const function all[] = {\n";
    for (const std::string &name : exportList())
        program += "    (function)" + name + ",\n";
    return program + "};\n"
                     "int main(void)\n"
                     "{\n"
                     "    unsigned i;\n"
                     "    for (i = 0; i < sizeof(all) / sizeof(all[0]); i++)\n"
                     "        if (all[i] == 0)\n"
                     "            return 2;\n"
                     "    return zeb_one_time_remote_publish() == -1 ? 0 : 1;\n"
                     "}\n";
}

TEST(Library, ACProgramCanUseEveryFunction)
{
    scratch dir;
    const std::string source = dir.write("all.c", programNamingEveryFunction());
    const std::string program = dir.file("all");
    run(ZEB_C_COMPILER + C_FLAGS + ZEB_LINK_FLAGS " -o " + program + " " + source +
        " " ZEB_LIBRARY " -Wl,-rpath," ZEB_LIBRARY_DIR);
    run(program);
}

TEST(Library, ACxxProgramCanUseEveryFunction)
{
    scratch dir;
    const std::string source = dir.write("all.cpp", programNamingEveryFunction());
    const std::string program = dir.file("all");
    run(ZEB_CXX_COMPILER + CXX_FLAGS + ZEB_LINK_FLAGS " -o " + program + " " + source +
        " " ZEB_LIBRARY " -Wl,-rpath," ZEB_LIBRARY_DIR);
    run(program);
}

} // namespace
