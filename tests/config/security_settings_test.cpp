// The secure port's settings and the role table, read from a real store.
#include "settings_store.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

namespace {

const tk_string security = tcp_node + "Security/";

struct CSecurityStore : CSettingsStore {
    void put(const tk_string& node, const CElement& value) {
        CSettingsStore::put(security + node, value);
    }
    void put(const tk_string& node, const char* text) { put(node, CElement::from_string(text)); }
};

CModbusTcpSecuritySettings read() {
    CCdsHandle cds;
    return CModbusTcpSecuritySettings(cds);
}

} // namespace

BOOST_AUTO_TEST_SUITE(security_settings)

BOOST_AUTO_TEST_CASE(role_lists) {
    CModbusRoles::set_t set;
    BOOST_TEST(CModbusRoles::parse_list("1-6,15; 16 255", set));
    BOOST_TEST(set.count() == 9u);
    BOOST_TEST((set.test(1) && set.test(6) && set.test(15) && set.test(16) && set.test(255)));
    BOOST_TEST(!set.test(7));
    for (const char* bad : {"", " , ", "6-1", "256", "1-", "-3", "x", "1.5", "0x10", "1-2-3"})
        BOOST_TEST(!CModbusRoles::parse_list(bad, set), bad);

    CModbusRoles roles;
    CModbusRoles::rule_t viewer;
    CModbusRoles::parse_list("3,4", viewer.functions);
    viewer.any_unit = false;
    CModbusRoles::parse_list("1", viewer.units);
    roles.add("Viewer", viewer);
    BOOST_TEST(roles.allows("Viewer", 3, 1));
    BOOST_TEST(!roles.allows("Viewer", 6, 1));
    BOOST_TEST(!roles.allows("Viewer", 3, 2));
    // Without a default role, no role and unknown roles may ask nothing.
    BOOST_TEST(!roles.allows("", 3, 1));
    BOOST_TEST(!roles.allows("Admin", 3, 1));
    roles.set_default_role("Viewer");
    BOOST_TEST(roles.allows("", 3, 1));
    BOOST_TEST(roles.allows("Admin", 4, 1));
}

BOOST_FIXTURE_TEST_CASE(defaults_and_plain_port, CSecurityStore) {
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusTcpSecuritySettings s = read();
        BOOST_TEST(s.port() == 0u);
        BOOST_TEST(s.plain_port_open());
        BOOST_TEST(s.handshake_timeout() == 10u);
        BOOST_TEST(s.roles().size() == 0u);
        BOOST_TEST(log.text().empty(), log.text());
    }
    put("Port", CElement::from_uint(802));
    put("Certificate", "/c.crt");
    put("Private Key", "/c.key");
    put("CA Bundle", "/ca.crt");
    BOOST_TEST(read().port() == 802u);
    BOOST_TEST(!read().plain_port_open());
    put("Plain Port Open", CElement::from_bool(true));
    put("Roles/Operator/Function Codes", "1-6,15,16");
    put("Roles/Viewer/Function Codes", "1-4");
    put("Roles/Viewer/Unit IDs", "2");
    put("Default Role", "Viewer");
    const CModbusTcpSecuritySettings s = read();
    BOOST_TEST(s.plain_port_open());
    BOOST_TEST(s.roles().allows("Operator", 16, 7));
    BOOST_TEST(!s.roles().allows("Operator", 8, 1));
    BOOST_TEST(s.roles().allows("", 3, 2));
    BOOST_TEST(!s.roles().allows("", 3, 1));
}

BOOST_FIXTURE_TEST_CASE(wrong_values_warn_once_each, CSecurityStore) {
    put("Port", CElement::from_uint(802));
    put("Certificate", "/c.crt");
    put("CA Bundle", CElement::from_uint(3));
    put("Plain Port Open", "maybe");
    put("Handshake Timeout", CElement::from_uint(0));
    put("Roles/Operator/Function Codes", "1-6,300");
    put("Roles/Viewer/Function Codes", "3");
    put("Roles/Viewer/Unit IDs", "one");
    put("Default Role", "Admin");
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusTcpSecuritySettings s = read();
    const std::string text = log.text();
    // Without a key and a CA bundle there is no secure port, so the plain one stays open.
    BOOST_TEST(s.port() == 0u);
    BOOST_TEST(s.plain_port_open());
    BOOST_TEST(s.handshake_timeout() == 10u);
    // Roles with unreadable lists are kept, with no rights.
    BOOST_TEST(s.roles().has("Operator"));
    BOOST_TEST(!s.roles().allows("Operator", 3, 1));
    BOOST_TEST(!s.roles().allows("Viewer", 3, 1));
    BOOST_TEST(s.roles().default_role().empty());
    for (const std::string& line :
         {security + "Private Key/Value' is missing; using no secure port",
          security + "CA Bundle/Value' is 3, not a file path; using no secure port",
          security + "Plain Port Open/Value' is \"maybe\", not true or false; using true",
          security + "Handshake Timeout/Value' is 0, not a whole number from 1 to 600; using 10",
          security + "Roles/Operator/Function Codes/Value' is \"1-6,300\", not a list such as "
                     "\"1-6,15,16\"; using no function",
          security + "Roles/Viewer/Unit IDs/Value' is \"one\", not a list such as \"1,2\"; "
                     "using no unit",
          security + "Default Role/Value' is \"Admin\", not a role under Roles; using none"})
        BOOST_TEST(has_text(text, line), text);
    BOOST_TEST(count_of(text, "WARN [0] CModbusSettings: ") == 7u, text);
}

BOOST_AUTO_TEST_SUITE_END()
