// Policy messages: what is a policy, what is refused and why. All real; the signatures are libsodium's.
#include "platform/hvbagent/PolicyDocument.h"
#include "platform/hvbagent/AgentLimits.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sodium.h>

#include <string>

namespace {

using namespace HVBEnterprise;
using namespace HVBEnterprise::agent;
using nlohmann::json;

std::string refusalOf(const std::string& document) {
    return readPolicyDocument(document).refused;
}

std::wstring valueIn(const PolicyReading& reading, const std::wstring& feature, const std::wstring& section,
                     const std::wstring& key) {
    PolicySetting setting;
    setting.m_featureId = feature;
    std::wstring value = L"missing";
    reading.sections.getPropValue(setting, section, key, value);
    return value;
}

/// A document with one key of one section.
std::string withValue(const std::string& value) {
    return R"({"version": 1, "sections": {"S": {"k": )" + value + "}}}";
}

TEST(APolicyDocument, GivesItsVersionItsIdItsHashAndItsValues) {
    const std::string document = R"({"version": 12, "id": "Büro", "sections": {"NODE": {"EnforcePolicy": 1}},
        "features": {"KPF": {"S": {"text": "a,b", "number": -5, "on": true, "off": false,
        "big": 18446744073709551615}}}})";
    const PolicyReading reading = readPolicyDocument(document);
    EXPECT_EQ(reading.refused, "");
    EXPECT_EQ(reading.identity.version, 12);
    EXPECT_EQ(reading.identity.id, "Büro");
    EXPECT_EQ(reading.identity.sha256, sha256Of(document));
    EXPECT_EQ(valueIn(reading, L"KPF", L"S", L"text"), L"a,b");
    EXPECT_EQ(valueIn(reading, L"KPF", L"S", L"number"), L"-5");
    EXPECT_EQ(valueIn(reading, L"KPF", L"S", L"on"), L"1");
    EXPECT_EQ(valueIn(reading, L"KPF", L"S", L"off"), L"0");
    EXPECT_EQ(valueIn(reading, L"KPF", L"S", L"big"), L"18446744073709551615");
    std::wstring value;
    EXPECT_TRUE(reading.sections.getPropValue(L"NODE", L"EnforcePolicy", value));
    EXPECT_EQ(value, L"1");
}

TEST(APolicyDocument, MayBeEmptyButForItsVersion) {
    const PolicyReading reading = readPolicyDocument(R"({"version": 0})");
    EXPECT_EQ(reading.refused, "");
    EXPECT_EQ(reading.identity.id, "");
    EXPECT_TRUE(reading.sections.sections().empty());
}

TEST(APolicyDocument, KeepsCharactersOfEveryPlane) {
    const PolicyReading reading =
        readPolicyDocument(R"({"version": 1, "features": {"é": {"€": {"𝄞": "\ud834\udd1e"}}}})");
    EXPECT_EQ(valueIn(reading, L"\u00E9", L"\u20AC", L"\U0001D11E"), L"\U0001D11E");
}

TEST(APolicyDocument, IsRefusedWithoutAVersionThatIsANumberFromZeroOn) {
    EXPECT_EQ(refusalOf("{}"), "/version: is missing");
    for (const char* version : {"-1", "1.0", "1e3", "\"1\"", "true", "null", "[]", "9223372036854775808", "1e19"}) {
        EXPECT_EQ(refusalOf(std::string(R"({"version": )") + version + "}"),
                  "/version: is not an integer from 0 to 9223372036854775807")
            << version;
    }
    EXPECT_EQ(refusalOf(R"({"version": 9223372036854775807})"), "");
}

TEST(APolicyDocument, IsRefusedForAMemberThatIsNotKnown) {
    EXPECT_EQ(refusalOf(R"({"version": 1, "features ": {}})"), "/features : is no member of a policy");
}

TEST(APolicyDocument, IsRefusedForWhatIsNoObject) {
    EXPECT_EQ(refusalOf("[]"), "the document: is not an object");
    EXPECT_EQ(refusalOf(R"({"version": 1, "sections": []})"), "/sections: is not an object");
    EXPECT_EQ(refusalOf(R"({"version": 1, "sections": {"A": 1}})"), "/sections/A: is not an object");
    EXPECT_EQ(refusalOf(R"({"version": 1, "features": "F"})"), "/features: is not an object");
    EXPECT_EQ(refusalOf(R"({"version": 1, "features": {"F": {"S": []}}})"), "/features/F/S: is not an object");
    EXPECT_EQ(refusalOf(R"({"version": 1, "id": 7})"), "/id: is not a text");
}

TEST(APolicyDocument, IsRefusedForAValueThatIsNeitherTextNorIntegerNorBoolean) {
    for (const char* value : {"null", "1.5", "1e2", "[]", "99999999999999999999"}) {
        EXPECT_EQ(refusalOf(withValue(value)), "/sections/S/k: is neither a text nor an integer nor a boolean")
            << value;
    }
    EXPECT_EQ(refusalOf(withValue("{\"x\": {}}")), "/sections/S/k/x: is nested too deeply");
}

TEST(APolicyDocument, SaysWhichVersionItIsWhenItIsRefusedForItsRest) {
    const PolicyReading reading =
        readPolicyDocument(R"({"version": 4, "id": "x", "sections": {"a": {"b": "c"}}, "zz": 1})");
    EXPECT_NE(reading.refused, "");
    EXPECT_EQ(reading.identity.version, 4);
    EXPECT_EQ(reading.identity.id, "x");
    EXPECT_TRUE(reading.sections.sections().empty());
}

TEST(APolicyDocument, IsRefusedForWhatIsThereTwice) {
    EXPECT_EQ(refusalOf(R"({"version": 1, "version": 2})"), "/version: is there twice");
    EXPECT_EQ(refusalOf(R"({"version": 1, "features": {"F": {"S": {"k": 1, "k": 1}}}})"),
              "/features/F/S/k: is there twice");
}

TEST(APolicyDocument, BoundsItsNamesInCharacters) {
    const auto longName = [](std::size_t characters) {
        std::string name;
        for (std::size_t i = 0; i < characters; ++i) {
            name += "é";
        }
        return name;
    };
    const auto documents = [](const std::string& name) {
        return std::vector<json>{{{"version", 1}, {"id", name}},
                                 {{"version", 1}, {"sections", {{name, json::object()}}}},
                                 {{"version", 1}, {"sections", {{"S", {{name, 1}}}}}},
                                 {{"version", 1}, {"features", {{name, json::object()}}}},
                                 {{"version", 1}, {"features", {{"F", {{name, json::object()}}}}}}};
    };
    for (const json& good : documents(longName(kMaxNameCharacters))) {
        EXPECT_EQ(refusalOf(good.dump()), "");
    }
    for (const json& bad : documents(longName(kMaxNameCharacters + 1))) {
        EXPECT_NE(refusalOf(bad.dump()), "");
    }
}

TEST(APolicyDocument, BoundsItsValuesInBytes) {
    EXPECT_EQ(refusalOf(withValue("\"" + std::string(kMaxValueBytes, 'v') + "\"")), "");
    EXPECT_EQ(refusalOf(withValue("\"" + std::string(kMaxValueBytes + 1, 'v') + "\"")),
              "/sections/S/k: is longer than 65536 bytes");
}

TEST(APolicyDocument, BoundsItsFeaturesAndSections) {
    const auto groups = [](std::size_t count) {
        json object = json::object();
        for (std::size_t i = 0; i < count; ++i) {
            object[std::to_string(i)] = json::object();
        }
        return object;
    };
    const auto documents = [&](std::size_t count) {
        return std::vector<json>{{{"version", 1}, {"sections", groups(count)}},
                                 {{"version", 1}, {"features", groups(count)}},
                                 {{"version", 1}, {"features", {{"F", groups(count)}}}}};
    };
    for (const json& good : documents(kMaxPolicyGroups)) {
        EXPECT_EQ(refusalOf(good.dump()), "");
    }
    for (const json& bad : documents(kMaxPolicyGroups + 1)) {
        EXPECT_NE(refusalOf(bad.dump()), "");
    }
}

TEST(APolicyDocument, BoundsTheKeysOfAllItsSectionsTogether) {
    const auto document = [](std::size_t keys) {
        std::string text = R"({"version":1,"sections":{"A":{)";
        for (std::size_t i = 0; i < keys; ++i) {
            text += (i == keys / 2 ? "},\"B\":{" : (i == 0 ? "" : ",")) + ("\"" + std::to_string(i)) + "\":1";
        }
        return text + "}}}";
    };
    const PolicyBounds bounds{.keys = 1000};
    EXPECT_EQ(readPolicyDocument(document(1000), bounds).refused, "");
    EXPECT_EQ(readPolicyDocument(document(1001), bounds).refused, "the document: has more than 1000 keys");
}

TEST(APolicyDocument, HasRoomForTheLongestListsThereMayBe) {
    EXPECT_EQ(PolicyBounds().bytes, 16U << 20U);
    EXPECT_EQ(PolicyBounds().keys, 400'000U);
}

TEST(APolicyDocument, IsRefusedForAnEntryBeyondTheLongestList) {
    const auto refused = [](const char* section, const std::string& key) {
        const json document{{"version", 1}, {"features", {{"F", {{section, {{key, "x"}}}}}}}};
        return refusalOf(document.dump());
    };
    for (const std::string list : {"szSite", "Action"}) {
        EXPECT_EQ(refused("BlockAndAllowList", list + "99999"), "");
        EXPECT_EQ(refused("BlockAndAllowList", list + "100000"),
                  "/features/F/BlockAndAllowList/" + list +
                      "100000: is beyond the 100000 entries that a list may have");
    }
    EXPECT_EQ(refused("ActionEnforcement", "szAgumentIP_99999"), "");
    EXPECT_NE(refused("ActionEnforcement", "szAgumentIP_2147483647"), "");
    EXPECT_EQ(refused("ActionEnforcement", "szSite100000"), "") << "is no list's in this section";
    EXPECT_EQ(refused("BlockAndAllowList", "szSite99999999999"), "") << "is no index";
}

TEST(APolicyDocument, BoundsItsSizeToTheByte) {
    const std::string smallest = R"({"version": 1})";
    const PolicyBounds bounds{.bytes = 4096};
    EXPECT_EQ(readPolicyDocument(smallest + std::string(4096 - smallest.size(), ' '), bounds).refused, "");
    const std::string tooLarge = smallest + std::string(4097 - smallest.size(), ' ');
    EXPECT_EQ(readPolicyDocument(tooLarge, bounds).refused, "the document: is larger than 4096 bytes");
    EXPECT_EQ(readPolicyMessage(tooLarge, {}, bounds).refused, "the document: is larger than 4096 bytes");
    EXPECT_EQ(readPolicyDocument(tooLarge, bounds).identity.sha256, sha256Of(tooLarge));
}

TEST(APolicyDocument, IsRefusedWhenItIsHostile) {
    EXPECT_NE(refusalOf(std::string(kMaxPolicyBytes, '[')), "");
    EXPECT_NE(refusalOf(std::string(kMaxPolicyBytes, '\0')), "");
    EXPECT_NE(refusalOf("{\"version\": 1, \"id\": \"\xC3\"}"), "");
    EXPECT_NE(refusalOf(withValue(R"("a\u0000b")")), "");
    EXPECT_NE(refusalOf(withValue("1e999")), "");
    EXPECT_EQ(refusalOf(R"({"version": 1, "sections": {"S": {"k": [[[[)"), "/sections/S/k/0: is nested too deeply");
    EXPECT_NE(refusalOf(""), "");
}

/// A pair of keys, and what an administrator signs with them.
class ASignedPolicy : public ::testing::Test {
protected:
    ASignedPolicy() {
        requireSodium();
        crypto_sign_keypair(m_public.data(), m_secret.data());
    }

    std::string signatureOf(const std::string& bytes) const {
        std::string signature(crypto_sign_BYTES, '\0');
        crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                             reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), m_secret.data());
        return signature;
    }
    static std::string envelope(const std::string& payload, const std::string& signature) {
        return json{{"payload", base64Of(payload)}, {"signature", base64Of(signature)}}.dump();
    }

    PublicKey m_public{};
    std::array<unsigned char, crypto_sign_SECRETKEYBYTES> m_secret{};
    const std::string m_document = R"({"version": 3, "id": "signed", "sections": {"S": {"k": "v"}}})";
};

TEST_F(ASignedPolicy, IsReadWhenItsSignatureFits) {
    const PolicyReading reading = readPolicyMessage(envelope(m_document, signatureOf(m_document)), {m_public});
    EXPECT_EQ(reading.refused, "");
    EXPECT_EQ(reading.identity.version, 3);
    EXPECT_EQ(reading.identity.sha256, sha256Of(m_document));
    EXPECT_EQ(reading.sections.sections().size(), 1U);
}

TEST_F(ASignedPolicy, IsReadWhenItsSignatureFitsOneOfTwoKeys) {
    PublicKey other = m_public;
    other[0] ^= 1;
    for (const PublicKeys& keys : {PublicKeys{other, m_public}, PublicKeys{m_public, other}}) {
        EXPECT_EQ(readPolicyMessage(envelope(m_document, signatureOf(m_document)), keys).refused, "");
    }
    EXPECT_NE(readPolicyMessage(envelope(m_document, signatureOf(m_document)), {other, other}).refused, "");
}

TEST_F(ASignedPolicy, IsRefusedWhenItsSignatureDoesNotFit) {
    std::string other = m_document;
    other.back() = ' ';
    PublicKey wrong = m_public;
    wrong[0] ^= 1;
    const std::string signature = signatureOf(m_document);
    const std::string reason = "/signature: does not fit the payload and this machine's key";
    EXPECT_EQ(readPolicyMessage(envelope(other, signature), {m_public}).refused, reason);
    EXPECT_EQ(readPolicyMessage(envelope(m_document, signature), {wrong}).refused, reason);
    EXPECT_EQ(readPolicyMessage(envelope(m_document, signature.substr(1)), {m_public}).refused, reason);
    EXPECT_EQ(readPolicyMessage(envelope(m_document, ""), {m_public}).refused, reason);
    EXPECT_EQ(readPolicyMessage(envelope(other, signature), {m_public}).identity.sha256, sha256Of(other));
}

TEST_F(ASignedPolicy, IsTheOnlyFormForAMachineWithAKey) {
    EXPECT_EQ(readPolicyMessage(m_document, {m_public}).refused,
              "the document: is not signed, and this machine takes signed policies only");
}

TEST_F(ASignedPolicy, IsReadByAMachineWithoutAKeyWhateverItsSignature) {
    EXPECT_EQ(readPolicyMessage(envelope(m_document, "no signature"), {}).identity.version, 3);
    EXPECT_EQ(readPolicyMessage(envelope(m_document, "no signature"), {}).refused, "");
    EXPECT_EQ(readPolicyMessage(m_document, {}).refused, "");
}

TEST_F(ASignedPolicy, IsRefusedWhenItsFormIsNotTheKnownOne) {
    const auto refusal = [&](const json& message) { return readPolicyMessage(message.dump(), {m_public}).refused; };
    const std::string payload = base64Of(m_document);
    EXPECT_EQ(refusal({{"payload", payload}}), "/signature: is missing");
    EXPECT_EQ(refusal({{"signature", payload}}), "/payload: is missing");
    EXPECT_EQ(refusal({{"payload", "%%%"}, {"signature", payload}}), "/payload: is not base64");
    EXPECT_EQ(refusal({{"payload", 7}, {"signature", payload}}), "/payload: is not base64");
    EXPECT_EQ(refusal({{"payload", payload}, {"signature", payload}, {"more", 1}}),
              "/more: is no member of a signed policy");
}

TEST_F(ASignedPolicy, IsRefusedWhenItsPayloadIsNoPolicyOrTooLarge) {
    EXPECT_EQ(readPolicyMessage(envelope("{}", signatureOf("{}")), {m_public}).refused, "/version: is missing");
    const std::string nested = envelope(m_document, signatureOf(m_document));
    EXPECT_NE(readPolicyMessage(envelope(nested, signatureOf(nested)), {m_public}).refused, "");
    const PolicyBounds bounds{.bytes = 4096};
    const std::string largest = m_document + std::string(bounds.bytes - m_document.size(), ' ');
    EXPECT_EQ(readPolicyMessage(envelope(largest, signatureOf(largest)), {m_public}, bounds).refused, "");
    EXPECT_EQ(readPolicyMessage(envelope(largest + " ", signatureOf(largest + " ")), {m_public}, bounds).refused,
              "the document: is larger than 4096 bytes");
}

TEST(APolicyDocument, SaysItsEpochAndWhomItIsFor) {
    const PolicyIdentity none = readPolicyDocument(R"({"version": 1})").identity;
    EXPECT_EQ(none.epoch, 1);
    EXPECT_FALSE(none.audience);
    const PolicyReading machine =
        readPolicyDocument(R"({"version": 1, "epoch": 1000000, "audience": {"site": "here", "machine": "m-1"}})");
    EXPECT_EQ(machine.refused, "");
    EXPECT_EQ(machine.identity.epoch, 1'000'000);
    ASSERT_TRUE(machine.identity.audience);
    EXPECT_EQ(machine.identity.audience->site, "here");
    EXPECT_EQ(machine.identity.audience->machine, "m-1");
    EXPECT_EQ(machine.identity.audience->group, "");
    const PolicyReading group = readPolicyDocument(R"({"version": 1, "audience": {"site": "here", "group": "all"}})");
    ASSERT_TRUE(group.identity.audience);
    EXPECT_EQ(group.identity.audience->group, "all");
}

TEST(APolicyDocument, IsRefusedForAnEpochOrAnAudienceThatIsNone) {
    const auto refusalWith = [](const std::string& member) {
        return readPolicyDocument(R"({"version": 1, )" + member + "}").refused;
    };
    for (const char* epoch : {"0", "-1", "1000001", "1.0", "\"1\"", "null"}) {
        EXPECT_EQ(refusalWith(std::string(R"("epoch": )") + epoch), "/epoch: is not an integer from 1 to 1000000")
            << epoch;
    }
    const std::string part = R"(is not 1 to 64 characters out of letters, digits, "_", "." and "-")";
    EXPECT_EQ(refusalWith(R"("audience": "here")"), "/audience: is not an object");
    EXPECT_EQ(refusalWith(R"("audience": {"machine": "m"})"), "/audience/site: is missing");
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a/b", "machine": "m"})"), "/audience/site: " + part);
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a", "machine": 1})"), "/audience/machine: " + part);
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a", "group": ""})"), "/audience/group: " + part);
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a"})"), "/audience: names not just one of machine and group");
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a", "group": "g", "machine": "m"})"),
              "/audience: names not just one of machine and group");
    EXPECT_EQ(refusalWith(R"("audience": {"site": "a", "group": "g", "more": "m"})"),
              "/audience/more: is no member of an audience");
}

} // namespace
