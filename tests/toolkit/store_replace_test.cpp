#include "toolkit/cds_store.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>


#include <chrono>
#include <cstdio>
#include <thread>

using toolkit::CCdsStore;
using toolkit::CElement;

namespace {

const tk_string k_leaf = "/Output/Setpoint";

// A store whose only connection is the fixture's, holding frames in its -wal file.
struct CReplaceFixture : CTestStore {
    CReplaceFixture() {
        define(k_leaf, CElement::TYPE_INT, CElement::from_int(1));
        BOOST_REQUIRE_EQUAL(write(2), API_STATUS_OK);
    }
    api_status_t write(int64_t value) {
        std::vector<api_status_t> statuses;
        rc = store().cds().set_leaves({k_leaf}, {CElement::from_int(value)}, {KVR_INDETERMINATE},
                                      statuses, "test");
        return statuses.empty() ? API_STATUS_NONE : statuses[0];
    }
    int64_t read() {
        api_status_t status = 0;
        CElement value;
        element_property_t source = 0;
        rc = store().cds().get_leaf(k_leaf, status, value, source);
        return rc == 0 && status == API_STATUS_OK ? value.to_int() : -1;
    }
    // A new store file at path with the leaf at value, closed again.
    void make_store(const tk_string& path, int64_t value) {
        tk_string error;
        BOOST_REQUIRE_MESSAGE(CCdsStore::create(path, error) == 0, error);
        CCdsStore other;
        BOOST_REQUIRE_EQUAL(other.open(path), 0);
        BOOST_REQUIRE_EQUAL(other.define({{k_leaf, CElement::TYPE_INT, CElement::from_int(value)}}),
                            0);
    }
    int rc = 0;
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(store_replaced, CReplaceFixture)

BOOST_AUTO_TEST_CASE(writes_follow_a_store_renamed_over_the_old_one) {
    // The old -wal file stays beside the new store, with the old store's latest commit.
    make_store(dir().file("new.db"), 10);
    BOOST_REQUIRE_EQUAL(std::rename(dir().file("new.db").c_str(), path().c_str()), 0);
    BOOST_TEST(write(3) == API_STATUS_OK);
    BOOST_TEST(rc == 0);
    const tk_string notice = store().cds().take_notice();
    BOOST_TEST(has_text(notice, "'" + path() + "' was replaced"), notice);
    BOOST_TEST(has_text(notice, "reopened"), notice);
    BOOST_TEST(store().cds().take_notice().empty());
    BOOST_TEST(fresh_look(path(), k_leaf) == "3 ok");
    BOOST_TEST(read() == 3);
    // Again, now that the connection is on the second file.
    make_store(dir().file("third.db"), 20);
    BOOST_REQUIRE_EQUAL(std::rename(dir().file("third.db").c_str(), path().c_str()), 0);
    BOOST_TEST(write(4) == API_STATUS_OK);
    BOOST_TEST(fresh_look(path(), k_leaf) == "4 ok");
}

BOOST_AUTO_TEST_CASE(reads_notice_a_replaced_store_within_half_a_second) {
    BOOST_TEST(read() == 2);
    make_store(dir().file("new.db"), 10);
    BOOST_REQUIRE_EQUAL(std::rename(dir().file("new.db").c_str(), path().c_str()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    BOOST_TEST(read() == 10);
    BOOST_TEST(has_text(store().cds().take_notice(), "reopened"));
    BOOST_TEST(fresh_look(path(), k_leaf) == "10 ok");
}

BOOST_AUTO_TEST_CASE(a_removed_store_fails_writes_and_reads_until_it_is_back) {
    BOOST_REQUIRE_EQUAL(::unlink(path().c_str()), 0);
    BOOST_TEST(write(5) == API_STATUS_FAILURE);
    BOOST_TEST(rc != 0);
    BOOST_TEST(has_text(store().cds().error(), path()), store().cds().error());
    const tk_string notice = store().cds().take_notice();
    BOOST_TEST(has_text(notice, "'" + path() + "' is gone"), notice);
    BOOST_TEST(read() == -1);
    BOOST_TEST(rc != 0);
    BOOST_TEST(write(5) == API_STATUS_FAILURE);
    // Said once, not on every call.
    BOOST_TEST(store().cds().take_notice().empty());

    // The -wal of the removed file must not leak into a store made at its path.
    make_store(path(), 30);
    BOOST_TEST(fresh_look(path(), k_leaf) == "30 ok");
    BOOST_TEST(write(6) == API_STATUS_OK);
    BOOST_TEST(has_text(store().cds().take_notice(), "reopened"));
    BOOST_TEST(fresh_look(path(), k_leaf) == "6 ok");
}

BOOST_AUTO_TEST_SUITE_END()
