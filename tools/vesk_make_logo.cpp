// vesk_make_logo - writes a logo frame file (".nvr") that the layer loads at start-up:
// a 16-byte header (width u16 at byte 4, height u16 at byte 6, payload length u32 at byte 8,
// little-endian) followed by the payload, normally one encoded key frame.
// Usage: vesk_make_logo OUT.nvr WIDTH HEIGHT [PAYLOAD_FILE]
//   Without PAYLOAD_FILE the payload is WIDTH*HEIGHT/64 filler bytes: enough for the cache, the
//   readers and the tests, though no decoder will show it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: %s OUT.nvr WIDTH HEIGHT [PAYLOAD_FILE]\n", argv[0]);
        return 2;
    }
    const unsigned long width = strtoul(argv[2], nullptr, 0);
    const unsigned long height = strtoul(argv[3], nullptr, 0);
    if (width == 0 || height == 0 || width > 0xFFFF || height > 0xFFFF) {
        fprintf(stderr, "width and height must be 1..65535\n");
        return 2;
    }
    std::vector<uint8_t> payload;
    if (argc == 5) {
        FILE* in = fopen(argv[4], "rb");
        if (in == nullptr) {
            perror(argv[4]);
            return 1;
        }
        uint8_t buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), in)) > 0)
            payload.insert(payload.end(), buf, buf + n);
        fclose(in);
    } else {
        payload.resize(width * height / 64 + 1);
        for (size_t i = 0; i < payload.size(); i++)
            payload[i] = static_cast<uint8_t>(i * 31 + 7);
    }
    uint8_t head[16] = {'N', 'V', 'R', '1'};
    const uint16_t w = static_cast<uint16_t>(width);
    const uint16_t h = static_cast<uint16_t>(height);
    const uint32_t len = static_cast<uint32_t>(payload.size());
    head[4] = static_cast<uint8_t>(w);
    head[5] = static_cast<uint8_t>(w >> 8);
    head[6] = static_cast<uint8_t>(h);
    head[7] = static_cast<uint8_t>(h >> 8);
    for (int i = 0; i < 4; i++)
        head[8 + i] = static_cast<uint8_t>(len >> (8 * i));
    FILE* out = fopen(argv[1], "wb");
    if (out == nullptr) {
        perror(argv[1]);
        return 1;
    }
    const bool ok = fwrite(head, 1, sizeof(head), out) == sizeof(head)
        && fwrite(payload.data(), 1, payload.size(), out) == payload.size();
    if (fclose(out) != 0 || !ok) {
        fprintf(stderr, "%s: write failed\n", argv[1]);
        return 1;
    }
    return 0;
}
