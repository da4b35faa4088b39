// The XML operator: building, addressing by path, the save/load round trip and its failures.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "test_support.h"
#include "vesk_utility.h"

using namespace vesk_soft;

TEST(XmlOperateTest, BuildsSavesAndReadsBackByPath)
{
    vesk_xml_operate* xml = vesk_utility_new_xml_operate(VESK_USER_UTILITY, "xml test");
    ASSERT_NE(nullptr, xml);
    char buf[32];
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->add_element("", "net")); // no document yet
    ASSERT_EQ(VESK_OK, xml->create("cfg"));
    ASSERT_EQ(VESK_OK, xml->add_element("", "net"));
    ASSERT_EQ(VESK_OK, xml->add_element("net", "eth"));
    ASSERT_EQ(VESK_OK, xml->add_element("net", "eth"));
    ASSERT_EQ(VESK_OK, xml->set_attr("net/eth", "name", "eth0"));
    ASSERT_EQ(VESK_OK, xml->set_attr("net/eth[1]", "name", "eth1"));
    ASSERT_EQ(VESK_OK, xml->set_attr_int("net/eth[1]", "mtu", -1500));
    ASSERT_EQ(VESK_OK, xml->set_text("net/eth[1]", "a < b & c"));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->set_attr("net/eth[2]", "name", "x"));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->add_element("net/eth[", "x"));
    EXPECT_EQ(VESK_ERR_INVALID_PARAM, xml->set_attr("net", nullptr, "x"));

    const std::string path = vesk_test::private_root() + "/reserve/cfg.xml";
    ASSERT_EQ(VESK_OK, xml->save(path.c_str()));
    ASSERT_EQ(VESK_OK, xml->create("other"));
    ASSERT_EQ(VESK_OK, xml->load(path.c_str()));
    ASSERT_EQ(VESK_OK, xml->get_root_name(buf, sizeof(buf)));
    EXPECT_STREQ("cfg", buf);
    ASSERT_EQ(VESK_OK, xml->get_attr("net/eth[1]", "name", buf, sizeof(buf)));
    EXPECT_STREQ("eth1", buf);
    int mtu = 0;
    ASSERT_EQ(VESK_OK, xml->get_attr_int("net/eth[1]", "mtu", &mtu));
    EXPECT_EQ(-1500, mtu);
    ASSERT_EQ(VESK_OK, xml->get_text("net/eth[1]", buf, sizeof(buf)));
    EXPECT_STREQ("a < b & c", buf);
    ASSERT_EQ(VESK_OK, xml->get_text("net/eth", buf, sizeof(buf)));
    EXPECT_STREQ("", buf);
    // Not an integer, no such attribute, no room: failures that leave buf alone.
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->get_attr_int("net/eth", "name", &mtu));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->get_attr("net/eth", "mtu", buf, sizeof(buf)));
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->get_attr("net/eth", "name", buf, 4));
    // A malformed file is refused and the loaded document stays.
    const std::string bad = vesk_test::private_root() + "/reserve/bad.xml";
    std::ofstream(bad) << "<cfg><net></cfg>";
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->load(bad.c_str()));
    EXPECT_EQ(VESK_OK, xml->get_attr("net/eth", "name", buf, sizeof(buf)));
    EXPECT_STREQ("eth0", buf);
    // A save that cannot be written keeps nothing half-done.
    EXPECT_EQ(VESK_ERR_OPERATE_FAIL, xml->save("/nonexistent_dir/x.xml"));
    EXPECT_EQ(VESK_OK, vesk_utility_delete_xml_operate(xml, __FILE__, __func__));
}
