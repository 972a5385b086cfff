/* zeb block: JSON to octets and back, without loss, and what is refused. */
#include "tool.h"

namespace
{

TEST_F(Tool, ABlockIsEncodedOctetByOctet)
{
    const process::outcome result =
        zeb({"block", "encode"},
            R"({"segments":[{"name":"s","elements":[{"name":"k","value":"v"}],"segments":[{"name":"t"}]}]})");
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, std::string("\x00\xa3\x7c\x08\xe7\x78\xee\x24\x5f\xd3\xb6\x4e"
                                      "\x01\x00\x02s\x00\x00"
                                      "\x02\x00\x01k\x00\x00\x01v\x00"
                                      "\x01\x00\x02t\x00\x01",
                                      33));
}

TEST_F(Tool, WhatWasEncodedIsDecodedWithoutLoss)
{
    const json form = json::parse(R"({"segments":[
        {"name":"b","elements":[{"name":"text","value":"gr\u00fc\u00df"},{"name":"","value":""},
                                {"name":"octets","base64":"/wAX"},{"name":"nul","value":"a\u0000b"}],
         "segments":[{"name":"deep","segments":[{"name":"deeper"}]},{"nameBase64":"/w=="}]},
        {"name":"a"},{"name":""}]})");
    const process::outcome encoded = zeb({"block", "encode"}, form.dump());
    ASSERT_EQ(encoded.code, 0) << encoded.err;
    const process::outcome decoded = zeb({"block", "decode"}, encoded.out);
    EXPECT_EQ(decoded.code, 0) << decoded.err;
    EXPECT_EQ(json::parse(decoded.out), form);
    EXPECT_EQ(zeb({"block", "encode", "--file", write_file(decoded.out)}).out, encoded.out);
}

TEST_F(Tool, AnEmptyBlockIsItsSignature)
{
    const process::outcome encoded = zeb({"block", "encode"}, "{}");
    EXPECT_EQ(encoded.out.size(), 12U);
    EXPECT_EQ(zeb({"block", "decode"}, encoded.out).out, "{\"segments\":[]}\n");
}

TEST_F(Tool, TextForPeople)
{
    const std::string block = zeb({"block", "encode"}, R"({"segments":[{"name":"s","elements":[
        {"name":"k","value":"v"},{"name":"o","base64":"/w=="}]}]})")
                                  .out;
    EXPECT_EQ(zeb({"block", "decode", "--text"}, block).out, "Seg:s\n  k=v\n  o=<binary-data>\n");
}

TEST_F(Tool, WrongJsonForABlockIsRefusedWithItsPlace)
{
    const std::string longName(65534, 'n'), longValue(65535, 'v');
    std::string deep = "[]";
    for (int i = 0; i < 257; i++)
        deep = R"([{"name":"s","segments":)" + deep + "}]";
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {"", "this is no JSON"},
        {"{", "this is no JSON"},
        {"[]", "the top: an object is expected"},
        {R"({"segment":[]})", "the top: unknown member 'segment'"},
        {R"({"segments":{}})", "the top: 'segments' must be a list"},
        {R"({"segments":[7]})", "segments[0]: an object is expected"},
        {R"({"segments":[{}]})", "segments[0]: one of 'name' and 'nameBase64' is expected"},
        {R"({"segments":[{"name":7}]})", "segments[0]: names and values are strings"},
        {R"({"segments":[{"name":"a\u0000"}]})", "segments[0]: a name cannot hold a NUL"},
        {R"({"segments":[{"nameBase64":"a"}]})", "segments[0]: 'nameBase64' is no base64"},
        {R"({"segments":[{"name":"a"},{"name":"a"}]})", "segments[1]: a second segment of this name"},
        {R"({"segments":[{"name":"a","elements":[{"name":"k"}]}]})",
         "segments[0].elements[0]: one of 'value' and 'base64' is expected"},
        {R"({"segments":[{"name":"a","elements":[{"name":"k","value":"","base64":""}]}]})",
         "segments[0].elements[0]: one of 'value' and 'base64' is expected"},
        {R"({"segments":[{"name":"a","elements":[{"name":"k","value":""},{"name":"k","value":""}]}]})",
         "segments[0].elements[1]: a second element of this name"},
        {R"({"segments":[{"name":"a","segments":[{"x":1}]}]})",
         "segments[0].segments[0]: unknown member 'x'"},
        {R"({"segments":[{"name":")" + longName + "\"}]}",
         "segments[0]: the name has more than 65533 octets"},
        {R"({"segments":[{"name":"a","elements":[{"name":"k","value":")" + longValue + "\"}]}]}",
         "segments[0].elements[0]: the value has more than 65534 octets"},
        {"{\"segments\":" + deep + "}", "more than 256 levels"},
    };
    for (const auto &[text, why] : wrong) {
        const process::outcome result = zeb({"block", "encode"}, text);
        EXPECT_EQ(result.code, 1) << text.substr(0, 80);
        EXPECT_EQ(result.out, "") << text.substr(0, 80);
        EXPECT_NE(result.err.find(why), std::string::npos) << result.err;
    }
}

TEST_F(Tool, TheLongestAndDeepestSurvive)
{
    std::string deep = "[]";
    for (int i = 0; i < 256; i++)
        deep = R"([{"name":"s","segments":)" + deep + "}]";
    const std::string form = R"({"segments":[{"name":")" + std::string(65533, 'n') +
                             R"(","elements":[{"name":")" + std::string(65534, 'e') + R"(","value":")" +
                             std::string(65534, 'v') + R"("}]},)" + deep.substr(1) + "}";
    const process::outcome encoded = zeb({"block", "encode"}, form);
    ASSERT_EQ(encoded.code, 0) << encoded.err.substr(0, 200);
    const process::outcome decoded = zeb({"block", "decode"}, encoded.out);
    EXPECT_EQ(decoded.code, 0) << decoded.err;
    EXPECT_EQ(zeb({"block", "encode"}, decoded.out).out, encoded.out);
}

TEST_F(Tool, WhatIsNoBlockIsRefused)
{
    for (const std::string &body :
         {std::string(), std::string("hello, this is text"), std::string(12, '\0')}) {
        const process::outcome result = zeb({"block", "decode"}, body);
        EXPECT_EQ(result.code, 3);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "zeb: this is no body block\n");
    }
    EXPECT_EQ(zeb({"block", "decode", "--file", "/no/such/file"}).code, 1);
    EXPECT_EQ(zeb({"block"}).code, 1);
}

TEST_F(Tool, OfADamagedBlockTheBeginningIsPrinted)
{
    const std::string block =
        zeb({"block", "encode"}, R"({"segments":[{"name":"first"},{"name":"second"}]})").out;
    const process::outcome cut = zeb({"block", "decode"}, block.substr(0, block.size() - 3));
    EXPECT_EQ(cut.code, 5);
    EXPECT_EQ(cut.out, "{\"segments\":[{\"name\":\"first\"}]}\n");
    EXPECT_NE(cut.err.find("damaged"), std::string::npos);
}

} // namespace
