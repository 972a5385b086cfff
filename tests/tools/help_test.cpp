/* Help, reference page and completion: all made from one table, so all must name everything. */
#include "terminal.h"
#include "tool.h"

namespace
{

std::string slurp(const std::string &name)
{
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(Tool, EveryVerbHasAManualPage)
{
    const std::vector<std::string> verbs = verbs_in(zeb({"help"}).out);
    EXPECT_GT(verbs.size(), 10U);
    for (const std::string &verb : verbs) {
        process::arguments byOption = words_of(verb), byVerb = words_of("help " + verb);
        byOption.push_back("--help");
        const process::outcome page = zeb(byVerb);
        EXPECT_EQ(page.code, 0) << verb;
        EXPECT_EQ(page.out, zeb(byOption).out) << verb;
        EXPECT_EQ(page.err, "") << verb;
        EXPECT_EQ(page.out.find("NAME\n    zeb " + verb + " - "), 0U) << page.out;
        for (const char *part : {"\nSYNOPSIS\n    zeb ", "\nDESCRIPTION\n", "\nCOMMON OPTIONS\n",
                                 "\nEXIT CODES\n    0  done\n    1  wrong usage\n", "\nEXAMPLE\n    "})
            EXPECT_NE(page.out.find(part), std::string::npos) << verb << part;
        EXPECT_EQ(page.out.find(".."), page.out.find("...")) << verb << ": a sentence ended twice";
    }
    EXPECT_EQ(zeb({"help", "stream"}).out,
              zeb({"help", "stream", "send"}).out + "\n" + zeb({"help", "stream", "receive"}).out);
}

TEST_F(Tool, HelpNamesDefaults)
{
    EXPECT_NE(zeb({"help", "bench"}).out.find("Default: 2000."), std::string::npos);
    EXPECT_NE(zeb({"help", "pub"}).out.find("Default: zeb."), std::string::npos);
    EXPECT_NE(zeb({"help", "pub"}).out.find("limited to 30 seconds"), std::string::npos);
}

TEST_F(Tool, HelpComesAlsoWhereArgumentsAreMissingOrWrong)
{
    EXPECT_EQ(zeb({"pub", "--repeat", "none", "--help"}).code, 0);
    EXPECT_EQ(zeb({"help", "no-such-verb"}).code, 1);
    EXPECT_EQ(zeb({"--help"}).out, zeb({"help"}).out);
}

TEST_F(Tool, TheReferencePageIsWhatTheToolPrints)
{
    EXPECT_EQ(zeb({"help", "--markdown"}).out, slurp(ZEB_DOCS "/zeb.md"))
        << "write it anew: zeb help --markdown > docs/zeb.md";
}

/* ---- Completion ---- */

TEST_F(Tool, CompletionNamesEveryVerbAndOption)
{
    for (const std::string shell : {"bash", "zsh", "fish"}) {
        const process::outcome script = zeb({"completion", shell});
        EXPECT_EQ(script.code, 0) << shell;
        EXPECT_NE(script.out.find("receive"), std::string::npos) << shell;
        EXPECT_NE(script.out.find("body-only"), std::string::npos) << shell;
    }
    EXPECT_EQ(zeb({"completion", "csh"}).code, 1);
    EXPECT_EQ(zeb({"completion"}).code, 1);
}

TEST_F(Tool, CompletionScriptsAreValidForTheirShells)
{
    for (const std::string shell : {"bash", "zsh", "fish"}) {
        const std::string path = "/usr/bin/" + shell;
        const std::string script = write_file(zeb({"completion", shell}).out, "completion." + shell);
        const process::outcome checked = process::run({path, "-n", script});
        EXPECT_EQ(checked.code, 0) << shell << checked.err;
        EXPECT_EQ(checked.err, "") << shell;
    }
}

/* What bash offers behind the given words, the last one being completed. */
std::string offered(const std::string &script, const process::arguments &words)
{
    std::string line = "source " + script + "; COMP_WORDS=(";
    for (const std::string &word : words)
        line += " '" + word + "'";
    line += " ); COMP_CWORD=" + std::to_string(words.size() - 1) + "; _zeb; echo \"${COMPREPLY[@]}\"";
    return process::run({"/usr/bin/bash", "-c", line}).out;
}

TEST_F(Tool, BashCompletesVerbsOptionsAndFiles)
{
    const std::string script = write_file(zeb({"completion", "bash"}).out, "completion.bash");
    write_file("", "some-file");
    EXPECT_EQ(offered(script, {"zeb", "stre"}), "stream\n");
    EXPECT_EQ(offered(script, {"zeb", "stream", "re"}), "receive\n");
    EXPECT_EQ(offered(script, {"zeb", "stream", "send", "--pi"}), "--piece\n");
    EXPECT_EQ(offered(script, {"zeb", "--port", "1", "pub", "/a", "--body", "sub", "--comp"}),
              "--component\n");
    EXPECT_EQ(offered(script, {"zeb", "sub", "--tim"}), "--timeout\n");
    EXPECT_EQ(offered(script, {"zeb", "completion", "f"}), "fish\n");
    EXPECT_EQ(offered(script, {"zeb", "pub", "--file", directory + "/some"}), directory + "/some-file\n");
    EXPECT_EQ(offered(script, {"zeb", "pub", "--body", ""}), "\n");
}

} // namespace
