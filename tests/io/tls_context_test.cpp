// The TLS context refuses files it cannot use, naming the file and why.
#include "io/tls/tls_context.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <sys/stat.h>

namespace {

// The message create() fails with, or "" when it succeeds.
std::string failure(const tk_string& cert, const tk_string& key, const tk_string& ca,
                    const tk_string& ciphers = "") {
    try {
        CTlsContext::create(cert, key, ca, ciphers);
    } catch (const CTlsContext::error& e) {
        return e.what();
    }
    return "";
}

} // namespace

BOOST_AUTO_TEST_SUITE(tls_context)

BOOST_AUTO_TEST_CASE(unusable_files_are_named) {
    CTempDir dir;
    const tk_string command =
        "bash " MB_SOURCE_DIR "/scripts/tls-certs.sh " + dir.path() + " >/dev/null";
    BOOST_REQUIRE_EQUAL(std::system(command.c_str()), 0);
    const tk_string cert = dir.file("server.crt");
    const tk_string key = dir.file("server.key");
    const tk_string ca = dir.file("ca.crt");
    BOOST_TEST(failure(cert, key, ca) == "");

    BOOST_TEST(failure(dir.file("none.crt"), key, ca) ==
               "certificate '" + dir.file("none.crt") +
                   "' cannot be read: No such file or directory");
    BOOST_TEST(failure(cert, key, dir.file("none.crt")) ==
               "CA bundle '" + dir.file("none.crt") +
                   "' cannot be read: No such file or directory");
    // A key of another certificate.
    const std::string other = failure(cert, dir.file("client-Operator.key"), ca);
    BOOST_TEST(other.find("private key '" + dir.file("client-Operator.key") + "'") == 0u, other);
    BOOST_TEST(other.find("mismatch") != std::string::npos, other);
    // A certificate where the key belongs, and a key where the CA bundle belongs.
    const std::string swapped = failure(cert, key, key);
    BOOST_TEST(swapped.find("CA bundle '" + key + "' holds no usable certificate") == 0u, swapped);

    // A cipher list of nothing OpenSSL knows; one it knows in part is taken.
    const std::string ciphers = failure(cert, key, ca, "NO-SUCH-CIPHER");
    BOOST_TEST(ciphers.find("the TLS 1.2 cipher list 'NO-SUCH-CIPHER' names no suite") == 0u,
               ciphers);
    BOOST_TEST(failure(cert, key, ca, "NO-SUCH-CIPHER:AES128-SHA256") == "");

    BOOST_REQUIRE_EQUAL(::chmod(key.c_str(), 0640), 0);
    BOOST_TEST(failure(cert, key, ca) ==
               "private key '" + key +
                   "' may be read by group or others (mode 0640); allow its owner only (chmod "
                   "600)");
}

BOOST_AUTO_TEST_SUITE_END()
