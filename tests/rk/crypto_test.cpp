// Encrypted values: authenticated encryption, default and explicit keys, and refusal of
// tampered, misplaced or clear values.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "rk.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem_t* e) const { rk_elem_free(e); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemDeleter>;

std::string Decrypt(rk_elem_t* elem, const char* name, const char* key) {
    char* text = rk_child_get_string_encrypted(elem, name, key);
    std::string out = text == nullptr ? "(null)" : text;
    rk_free(text);
    return out;
}

class RkCrypto : public ::testing::Test {
  protected:
    void TearDown() override { rk_set_default_key(nullptr); }
};

TEST_F(RkCrypto, RoundTripWithDefaultKey) {
    ElemPtr e(rk_elem_new("r"));
    ASSERT_NE(rk_child_add_string_encrypted(e.get(), "secret", "pa55 <word>", nullptr), nullptr);
    EXPECT_STRNE(rk_child_get_string(e.get(), "secret"), "pa55 <word>");
    EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "pa55 <word>");
}

TEST_F(RkCrypto, RoundTripThroughXmlText) {
    ElemPtr e(rk_elem_new("r"));
    rk_child_add_string_encrypted(e.get(), "secret", "s3cr3t", "k1");
    char* text = rk_elem_sprintf(e.get());
    EXPECT_EQ(std::string(text).find("s3cr3t"), std::string::npos);
    ElemPtr parsed(rk_elem_parse(text, strlen(text), nullptr, 0));
    free(text);
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(Decrypt(parsed.get(), "secret", "k1"), "s3cr3t");
}

TEST_F(RkCrypto, EmptyValueRoundTrips) {
    ElemPtr e(rk_elem_new("r"));
    rk_child_add_string_encrypted(e.get(), "secret", "", nullptr);
    EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "");
}

TEST_F(RkCrypto, SameValueEncryptsDifferentlyEachTime) {
    ElemPtr e(rk_elem_new("r"));
    rk_child_add_string_encrypted(e.get(), "a", "same", nullptr);
    rk_child_add_string_encrypted(e.get(), "b", "same", nullptr);
    EXPECT_STRNE(rk_child_get_string(e.get(), "a"), rk_child_get_string(e.get(), "b"));
}

TEST_F(RkCrypto, WrongKeyReadsAsNull) {
    ElemPtr e(rk_elem_new("r"));
    rk_child_add_string_encrypted(e.get(), "secret", "v", "right");
    EXPECT_EQ(Decrypt(e.get(), "secret", "wrong"), "(null)");
    EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "(null)");
}

TEST_F(RkCrypto, SettingTheDefaultKeyChangesWhatNullMeans) {
    ElemPtr e(rk_elem_new("r"));
    ASSERT_EQ(rk_set_default_key("site-key"), 1);
    rk_child_add_string_encrypted(e.get(), "secret", "v", nullptr);
    EXPECT_EQ(Decrypt(e.get(), "secret", "site-key"), "v");
    rk_set_default_key(nullptr);
    EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "(null)");
}

TEST_F(RkCrypto, EveryChangedCharacterIsDetected) {
    ElemPtr e(rk_elem_new("r"));
    rk_elem_t* child = rk_child_add_string_encrypted(e.get(), "secret", "value", nullptr);
    const std::string sealed = rk_elem_get_content(child);
    const char alphabet[] = "AB+/";
    for (size_t i = 0; i < sealed.size(); ++i) {
        std::string tampered = sealed;
        tampered[i] = tampered[i] == alphabet[0] ? alphabet[1] : alphabet[0];
        if (tampered[i] == '=' || sealed[i] == '=')
            continue;
        rk_elem_set_content(child, tampered.c_str());
        rk_elem_set_attr(child, "encrypted", "aes-256-gcm");
        EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "(null)") << "position " << i;
    }
}

TEST_F(RkCrypto, GarbageAndTruncatedValuesReadAsNull) {
    const char* contents[] = {"", "!!!!", "AAAA", "AQ==", "not base64 at all"};
    for (const char* content : contents) {
        ElemPtr e(rk_elem_new("r"));
        rk_elem_t* child = rk_child_add_string(e.get(), "secret", content);
        rk_elem_set_attr(child, "encrypted", "aes-256-gcm");
        EXPECT_EQ(Decrypt(e.get(), "secret", nullptr), "(null)") << content;
    }
}

TEST_F(RkCrypto, ValueMovedToAnotherFieldReadsAsNull) {
    ElemPtr e(rk_elem_new("r"));
    rk_elem_t* a = rk_child_add_string_encrypted(e.get(), "a", "v", nullptr);
    rk_elem_t* b = rk_child_add_string(e.get(), "b", rk_elem_get_content(a));
    rk_elem_set_attr(b, "encrypted", "aes-256-gcm");
    EXPECT_EQ(Decrypt(e.get(), "b", nullptr), "(null)");
}

TEST_F(RkCrypto, ClearOrMissingValuesReadAsNull) {
    ElemPtr e(rk_elem_new("r"));
    rk_child_add_string(e.get(), "plain", "v");
    EXPECT_EQ(Decrypt(e.get(), "plain", nullptr), "(null)");
    EXPECT_EQ(Decrypt(e.get(), "missing", nullptr), "(null)");
}

}  // namespace
