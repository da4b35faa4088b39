// G.711: every 16-bit input and every code byte against Python's audioop, the encoders'
// idempotence on decoded values, and the exported wrappers' argument checks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

namespace
{

std::vector<uint8_t> run_binary(const std::string& cmd)
{
    std::vector<uint8_t> out;
    FILE* p = popen(cmd.c_str(), "r");
    for (int c; p != nullptr && (c = fgetc(p)) != EOF;)
        out.push_back(static_cast<uint8_t>(c));
    EXPECT_TRUE(p != nullptr && pclose(p) == 0) << cmd;
    return out;
}

} // namespace

TEST(G711Test, EveryInputMatchesAudioop)
{
    if (system("/usr/bin/python3 -W ignore -c 'import audioop' 2>/dev/null") != 0)
        GTEST_SKIP() << "Python's audioop is not available";
    std::vector<int16_t> pcm(65536);
    for (int i = 0; i < 65536; i++)
        pcm[i] = static_cast<int16_t>(i - 32768);
    const std::string in = vesk_test::private_root() + "/g711_all.raw";
    {
        std::ofstream f(in, std::ios::binary);
        f.write(reinterpret_cast<const char*>(pcm.data()), static_cast<std::streamsize>(pcm.size() * 2));
    }
    // A-law codes, mu-law codes, then the 256 decoded values of each law (16-bit native).
    const std::vector<uint8_t> want = run_binary(
        "/usr/bin/python3 -W ignore -c 'import audioop,sys; d=open(\"" + in +
        "\",\"rb\").read(); c=bytes(range(256)); o=sys.stdout.buffer; o.write(audioop.lin2alaw(d,2)); "
        "o.write(audioop.lin2ulaw(d,2)); o.write(audioop.alaw2lin(c,2)); o.write(audioop.ulaw2lin(c,2))'");
    ASSERT_EQ(want.size(), 65536u * 2 + 512 * 2);

    std::vector<uint8_t> alaw(65536), ulaw(65536);
    ASSERT_EQ(vesk_utility_g711_alaw_encode(pcm.data(), 65536, alaw.data()), VESK_OK);
    ASSERT_EQ(vesk_utility_g711_ulaw_encode(pcm.data(), 65536, ulaw.data()), VESK_OK);
    int bad = 0;
    for (int i = 0; i < 65536 && bad < 5; i++) {
        if (alaw[i] != want[i] || ulaw[i] != want[65536 + i]) {
            ADD_FAILURE() << "sample " << pcm[i] << ": alaw " << int(alaw[i]) << " want " << int(want[i]) << ", ulaw "
                          << int(ulaw[i]) << " want " << int(want[65536 + i]);
            bad++;
        }
    }
    std::vector<uint8_t> codes(256);
    for (int i = 0; i < 256; i++)
        codes[i] = static_cast<uint8_t>(i);
    std::vector<int16_t> alin(256), ulin(256);
    ASSERT_EQ(vesk_utility_g711_alaw_decode(codes.data(), 256, alin.data()), VESK_OK);
    ASSERT_EQ(vesk_utility_g711_ulaw_decode(codes.data(), 256, ulin.data()), VESK_OK);
    EXPECT_EQ(0, memcmp(alin.data(), want.data() + 131072, 512));
    EXPECT_EQ(0, memcmp(ulin.data(), want.data() + 131072 + 512, 512));
    unlink(in.c_str());
}

TEST(G711Test, DecodedValuesEncodeBackToTheirCode)
{
    // Holds for every code except mu-law's negative zero (0x7F), which decodes to 0 like 0xFF.
    for (int c = 0; c < 256; c++) {
        const uint8_t code = static_cast<uint8_t>(c);
        int16_t lin = 0;
        uint8_t back = 0;
        ASSERT_EQ(vesk_utility_g711_alaw_decode(&code, 1, &lin), VESK_OK);
        ASSERT_EQ(vesk_utility_g711_alaw_encode(&lin, 1, &back), VESK_OK);
        EXPECT_EQ(back, code) << "A-law " << c;
        ASSERT_EQ(vesk_utility_g711_ulaw_decode(&code, 1, &lin), VESK_OK);
        ASSERT_EQ(vesk_utility_g711_ulaw_encode(&lin, 1, &back), VESK_OK);
        EXPECT_EQ(back, c == 0x7F ? 0xFF : code) << "mu-law " << c;
    }
}

TEST(G711Test, NullBuffersAreRefusedUnlessEmpty)
{
    int16_t pcm = 0;
    uint8_t code = 0;
    EXPECT_EQ(vesk_utility_g711_alaw_encode(nullptr, 1, &code), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_g711_ulaw_encode(&pcm, 1, nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_g711_alaw_decode(nullptr, 1, &pcm), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_g711_ulaw_decode(&code, 1, nullptr), VESK_ERR_INVALID_PARAM);
    EXPECT_EQ(vesk_utility_g711_ulaw_decode(nullptr, 0, nullptr), VESK_OK);
}
