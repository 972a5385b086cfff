/* The library as it ships: what it exports, what it needs, and whether its header is one. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
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
        std::istringstream words(line);
        std::string address;
        std::string kind;
        std::string name;
        words >> address >> kind >> name;
        if (kind == "A")
            continue; /* the version node itself */
        EXPECT_EQ(kind, "T") << name << " is no function";
        exported.push_back(name.substr(0, name.find('@')));
    }
    std::sort(exported.begin(), exported.end());
    EXPECT_EQ(exported, exportList());
    EXPECT_GT(exported.size(), 100U);
}

TEST(Library, TheHeaderDeclaresExactlyTheListedFunctions)
{
    const std::string header = run(ZEB_C_COMPILER " -E -P -x c " ZEB_PUBLIC_DIR "/zeb.h");
    const std::regex declaration("\\b(zeb_\\w+)\\s*\\(");
    std::vector<std::string> declared;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), declaration);
         it != std::sregex_iterator(); ++it)
        declared.push_back((*it)[1]);
    std::sort(declared.begin(), declared.end());
    EXPECT_EQ(declared, exportList());
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
    const std::regex forbidden(
        " (_Zn[aw]|_Zd[al]|__cxa_(throw|begin_catch|guard|pure_virtual|atexit)|_Unwind_|"
        "__gxx_personality|_ZNSt|_ZSt|_ZNKSt|_ZTV|__tls_get_addr|__dynamic_cast)");
    size_t undefined = 0;
    for (const std::string &line : lines(run(NM + "-D --undefined-only " ZEB_LIBRARY))) {
        EXPECT_FALSE(std::regex_search(line, forbidden)) << line;
        undefined++;
    }
    EXPECT_GT(undefined, 20U) << "the list was read";
}

TEST(Library, IsBoundAtOnceAndNeverUnloaded)
{
    const std::string dynamic = run(READELF + "-d " ZEB_LIBRARY);
    const std::regex flags("\\(FLAGS_1\\).*");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(dynamic, found, flags)) << dynamic;
    EXPECT_NE(found[0].str().find("NOW"), std::string::npos) << found[0];
    EXPECT_NE(found[0].str().find("NODELETE"), std::string::npos) << found[0];
    EXPECT_NE(dynamic.find("[libzeb.so.1]"), std::string::npos) << "its soname";
}

TEST(Library, HasNoExecutableStackAndReadOnlyRelocations)
{
    const std::string headers = run(READELF + "-l " ZEB_LIBRARY);
    const std::regex stack("GNU_STACK +0x\\w+ 0x\\w+ 0x\\w+ 0x\\w+ 0x\\w+ (\\w+) ");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(headers, found, stack)) << headers;
    EXPECT_EQ(found[1], "RW");
    EXPECT_NE(headers.find("GNU_RELRO"), std::string::npos);
}

TEST(Library, RunsNothingWhenItIsLoadedOrUnloaded)
{
#ifdef ZEB_INSTRUMENTED
    GTEST_SKIP() << "instrumentation has constructors";
#endif
    /* One entry each: what the compiler's start files put there. */
    const std::string sections = run(READELF + "-S " ZEB_LIBRARY);
    for (const char *section : {"\\.init_array", "\\.fini_array"}) {
        const std::regex size(std::string(section) + " +\\w+ +[0-9a-f]+ [0-9a-f]+ 0*([0-9a-f]+) ");
        std::smatch found;
        ASSERT_TRUE(std::regex_search(sections, found, size)) << sections;
        EXPECT_EQ(found[1], "8") << section;
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
