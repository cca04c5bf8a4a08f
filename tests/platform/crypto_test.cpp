#include "foundation/crypto/CryptoEngine.hpp"
#include "foundation/crypto/cryptopp/CryptoProvider.hpp"
#include "foundation/crypto/utils/Base64URL.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using foundation::crypto::CryptoEngine;
using foundation::crypto::DigestAlgorithm;
using foundation::crypto::utils::base64URLEncode;

std::string hex(std::vector<unsigned char> const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 0xF];
  }
  return out;
}

std::vector<unsigned char> bytes(std::string const& text) { return {text.begin(), text.end()}; }

constexpr char kBlake2bEmpty[] =
    "786a02f742015903c6c6fd852552d272912f4740e15847618a86e217f71f5419"
    "d25e1031afee585313896444934eb04b903a685b1448b755d56f701afe9be2ce";
constexpr char kBlake2bAbc[] =
    "ba80a53f981c4d0d6a2797b69f12f6e94c212f14685ac4b74b12bb6fdbffa2d1"
    "7d87c5392aab792dc252d5de4533cc9518d38aa8dbf1925ab92386edd4009923";
// Keyed BLAKE2b-512 of the empty message, key 00 01 ... 3f (reference test vectors).
constexpr char kBlake2bKeyedEmpty[] =
    "10ebb67700b1868efb4417987acf4690ae9d972fb7a590c2f02871799aaa4786"
    "b5e996e8f0f4eb981fc214b005f42d2ff4233499391653df7aefcbc13fc51568";

class CryptoTest : public ::testing::Test {
 protected:
  CryptoEngine engine_{std::make_shared<foundation::crypto::cryptopp::CryptoProvider>()};
};

TEST_F(CryptoTest, Blake2bMatchesKnownVectors) {
  auto blake = engine_.createDigestEngine(DigestAlgorithm::BLAKE2b);
  ASSERT_NE(nullptr, blake);
  EXPECT_EQ(64u, blake->digestSize());
  EXPECT_EQ(kBlake2bEmpty, hex(blake->digest()));
  blake->update(std::string("abc"));
  EXPECT_EQ(kBlake2bAbc, hex(blake->digest()));

  // Fed in pieces, through each overload, and with an empty piece.
  blake->update("a", 1);
  blake->update(nullptr, 0);
  blake->update(bytes("b"));
  blake->update(std::string("c"));
  EXPECT_EQ(kBlake2bAbc, hex(blake->digest()));
}

TEST_F(CryptoTest, DigestAndResetStartANewMessage) {
  auto blake = engine_.createDigestEngine(DigestAlgorithm::BLAKE2b);
  blake->update(std::string("abc"));
  blake->digest();
  EXPECT_EQ(kBlake2bEmpty, hex(blake->digest())) << "digest() must start a new message";

  blake->update(std::string("discarded"));
  blake->reset();
  blake->update(std::string("abc"));
  EXPECT_EQ(kBlake2bAbc, hex(blake->digest()));
}

TEST_F(CryptoTest, Blake2bParameters) {
  // Empty key and parameters: plain BLAKE2b, as the cache names it.
  auto plain = engine_.createBlake2bDigestEngine({}, {});
  plain->update(std::string("abc"));
  EXPECT_EQ(kBlake2bAbc, hex(plain->digest()));

  std::vector<unsigned char> key(64);
  for (unsigned i = 0; i < key.size(); ++i) key[i] = static_cast<unsigned char>(i);
  auto keyed = engine_.createBlake2bDigestEngine(key, {});
  EXPECT_EQ(kBlake2bKeyedEmpty, hex(keyed->digest()));
  EXPECT_EQ(kBlake2bKeyedEmpty, hex(keyed->digest())) << "the key must survive digest()";
  keyed->reset();
  EXPECT_EQ(kBlake2bKeyedEmpty, hex(keyed->digest())) << "the key must survive reset()";

  auto salted = engine_.createBlake2bDigestEngine({}, bytes("salt"));
  EXPECT_NE(kBlake2bEmpty, hex(salted->digest()));

  EXPECT_THROW(engine_.createBlake2bDigestEngine(std::vector<unsigned char>(65), {}),
               std::invalid_argument);
  EXPECT_THROW(engine_.createBlake2bDigestEngine({}, std::vector<unsigned char>(17)),
               std::invalid_argument);
  EXPECT_THROW({ CryptoEngine noProvider(nullptr); }, std::invalid_argument);
  EXPECT_EQ("Crypto++", engine_.provider().name());
}

TEST(Base64URLTest, EncodesRfc4648VectorsWithoutPadding) {
  EXPECT_EQ("", base64URLEncode({}));
  EXPECT_EQ("Zg", base64URLEncode(bytes("f")));
  EXPECT_EQ("Zm8", base64URLEncode(bytes("fo")));
  EXPECT_EQ("Zm9v", base64URLEncode(bytes("foo")));
  EXPECT_EQ("Zm9vYg", base64URLEncode(bytes("foob")));
  EXPECT_EQ("Zm9vYmE", base64URLEncode(bytes("fooba")));
  EXPECT_EQ("Zm9vYmFy", base64URLEncode(bytes("foobar")));
  // The two characters that differ from plain Base64 ('+' and '/').
  EXPECT_EQ("-_8", base64URLEncode({0xfb, 0xff}));
  EXPECT_EQ("----", base64URLEncode({0xfb, 0xef, 0xbe}));
  EXPECT_EQ("____", base64URLEncode({0xff, 0xff, 0xff}));
}

TEST(Base64URLTest, LongInputHasNoLineBreaks) {
  std::vector<unsigned char> data;
  for (int i = 0; i < 100; ++i) data.insert(data.end(), {0xfb, 0xef, 0xbe});
  std::string const encoded = base64URLEncode(data);
  EXPECT_EQ(400u, encoded.size());
  EXPECT_EQ(std::string::npos, encoded.find_first_not_of('-'));
}

}  // namespace
