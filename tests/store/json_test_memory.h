// Memory baseline of the JSON tests: every byte under the JSON purpose, in the heap and in the
// pools, must be back when a test ends.
#ifndef VESK_JSON_TEST_MEMORY_H
#define VESK_JSON_TEST_MEMORY_H

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include "store/json/vesk_utility_json_tree.h"
#include "core/vesk_utility_pool.h"
#include "core/vesk_utility_ground.h"

namespace vesk_json_test
{

inline std::string& sink()
{
    static std::string s;
    return s;
}

inline int sink_print(const char* fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    sink() += line;
    return 0;
}

// Live pool nodes with the JSON purpose and their sizes, from the pools' node dumps.
inline uint64_t json_pool_bytes()
{
    vesk_utility::vesk_ground* res = vesk_utility::vesk_ground::instance();
    sink().clear();
    res->get_little_mem_pool()->diagnose(1, sink_print);
    res->get_string_pool()->diagnose(1, sink_print);
    uint64_t bytes = 0;
    std::istringstream lines(sink());
    for (std::string line; std::getline(lines, line);) {
        unsigned usr = 0, purpose = 0;
        int ci = 0, ni = 0, size = 0;
        void* mem = nullptr;
        if (sscanf(line.c_str(), "%d %d 0x%x 0x%x %p %d", &ci, &ni, &usr, &purpose, &mem, &size) == 6
            && purpose == vesk_utility::k_json_purpose)
            bytes += static_cast<uint64_t>(size) + 1;
    }
    return bytes;
}

class json_memory_test : public testing::Test
{
protected:
    void SetUp() override
    {
        m_pool = json_pool_bytes();
        m_heap = vesk_utility::vesk_ground::instance()->mem_account().total_size();
    }
    void TearDown() override
    {
        EXPECT_EQ(json_pool_bytes(), m_pool) << "JSON nodes or texts left in the pools";
        EXPECT_EQ(vesk_utility::vesk_ground::instance()->mem_account().total_size(), m_heap)
            << "accounted heap not back at its baseline";
    }

private:
    uint64_t m_pool = 0;
    uint32_t m_heap = 0;
};

} // namespace vesk_json_test

#endif // VESK_JSON_TEST_MEMORY_H
