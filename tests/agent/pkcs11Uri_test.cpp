// PKCS#11 URIs: what the agent accepts as the name of one key, and how the
// parts of a URI match a module, a token and a key.
#include <gtest/gtest.h>

#include "pkcs11Uri.h"

namespace {

using agent::KeyFacts;
using agent::ModuleFacts;
using agent::Pkcs11Uri;
using agent::TokenFacts;

TokenFacts ReleaseToken()
{
    TokenFacts token;
    token.slotId = 7;
    token.slotManufacturer = "SoftHSM project";
    token.slotDescription = "SoftHSM slot ID 0x7";
    token.label = "release";
    token.manufacturer = "SoftHSM project";
    token.model = "SoftHSM v2";
    token.serial = "62986b56e05b54c8";
    return token;
}

Pkcs11Uri Parsed(const std::string& text)
{
    Pkcs11Uri uri;
    std::string error;
    EXPECT_TRUE(uri.Parse(text, error)) << error;
    return uri;
}

std::string Refusal(const std::string& text)
{
    Pkcs11Uri uri;
    std::string error;
    EXPECT_FALSE(uri.Parse(text, error)) << text;
    return error;
}

TEST(Pkcs11Uri, TheObjectIsTheKeyNameAndTheQueryNamesModuleAndPinFile)
{
    const Pkcs11Uri uri = Parsed(
        "pkcs11:token=release;object=fw-key;type=private?module-path=/usr/lib/p11.so&pin-source=file:/etc/pin");
    EXPECT_EQ(uri.Object(), "fw-key");
    EXPECT_EQ(uri.ModulePath(), "/usr/lib/p11.so");
    EXPECT_EQ(uri.PinFile(), "/etc/pin");
}

TEST(Pkcs11Uri, PinSourceForms)
{
    EXPECT_EQ(Parsed("pkcs11:object=a?pin-source=file:///etc/pin").PinFile(), "/etc/pin");
    EXPECT_EQ(Parsed("pkcs11:object=a?pin-source=/etc/pin").PinFile(), "/etc/pin");
    EXPECT_EQ(Parsed("pkcs11:object=a?pin-source=file:%2Fetc%2Fpin").PinFile(), "/etc/pin");
    EXPECT_EQ(Parsed("pkcs11:object=a").PinFile(), "");
    EXPECT_NE(Refusal("pkcs11:object=a?pin-source=%7Cpin-program").find("is not a file"), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=a?pin-source=file:relative").find("is not a file"), std::string::npos);
}

TEST(Pkcs11Uri, WhatIsNotTheNameOfOnePrivateKeyIsRefused)
{
    EXPECT_NE(Refusal("https://example.org/key").find("--pkcs11-uri https://example.org/key: "), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:token=release").find("names no object"), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw;type=cert").find("serves private keys"), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw;type=public").find("serves private keys"), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw%20key").find("is not a valid key name"), std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=a-name-of-over-31-characters-in-all").find("is not a valid key name"),
              std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw;colour=blue").find("an attribute the agent does not know"),
              std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw?module-name=softhsm2").find("module-name is not supported"),
              std::string::npos);
    EXPECT_NE(Refusal("pkcs11:object=fw;library-version=2.6").find("library-version is not supported"),
              std::string::npos);
}

TEST(Pkcs11Uri, APinValueIsRefusedWithoutQuotingIt)
{
    const std::string error = Refusal("pkcs11:object=fw?pin-value=4711");
    EXPECT_NE(error.find("pin-value puts the PIN where every user can read it"), std::string::npos);
    EXPECT_EQ(error.find("4711"), std::string::npos);
}

TEST(Pkcs11Uri, TokenPartsMatchOnlyWhatTheyName)
{
    const TokenFacts token = ReleaseToken();
    EXPECT_TRUE(Parsed("pkcs11:object=fw").Matches(token));
    EXPECT_TRUE(Parsed("pkcs11:token=release;object=fw").Matches(token));
    EXPECT_TRUE(Parsed("pkcs11:serial=62986b56e05b54c8;model=SoftHSM%20v2;object=fw").Matches(token));
    EXPECT_TRUE(Parsed("pkcs11:slot-id=7;slot-manufacturer=SoftHSM%20project;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:token=releasE;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:token=releas;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:serial=62986b56e05b54c9;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:manufacturer=Other;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:slot-id=8;object=fw").Matches(token));
    EXPECT_FALSE(Parsed("pkcs11:slot-description=other;object=fw").Matches(token));
}

TEST(Pkcs11Uri, ModulePartsMatchTheModule)
{
    const ModuleFacts module{"SoftHSM", "Implementation of PKCS11"};
    EXPECT_TRUE(Parsed("pkcs11:object=fw").Matches(module));
    EXPECT_TRUE(Parsed("pkcs11:library-manufacturer=SoftHSM;object=fw").Matches(module));
    EXPECT_FALSE(Parsed("pkcs11:library-manufacturer=OpenSC;object=fw").Matches(module));
    EXPECT_FALSE(Parsed("pkcs11:library-description=other;object=fw").Matches(module));
}

TEST(Pkcs11Uri, KeyPartsMatchLabelAndId)
{
    const KeyFacts key{"fw-key", {0xa1, 0x02}};
    EXPECT_TRUE(Parsed("pkcs11:object=fw-key").Matches(key));
    EXPECT_TRUE(Parsed("pkcs11:object=fw-key;id=%A1%02;type=private").Matches(key));
    EXPECT_FALSE(Parsed("pkcs11:object=fw-key;id=%A1").Matches(key));
    EXPECT_FALSE(Parsed("pkcs11:object=fw-ke").Matches(key));
    // A key without an id does not match a URI that names one.
    EXPECT_FALSE(Parsed("pkcs11:object=fw-key;id=%A1%02").Matches(KeyFacts{"fw-key", {}}));
}

TEST(Pkcs11Uri, IdentifyNamesTokenSerialObjectIdAndType)
{
    const std::string exact = Pkcs11Uri::Identify(ReleaseToken(), KeyFacts{"fw-key", {0xa1}});
    EXPECT_EQ(exact, "pkcs11:serial=62986b56e05b54c8;token=release;id=%A1;object=fw-key;type=private");
    const Pkcs11Uri again = Parsed(exact);
    EXPECT_TRUE(again.Matches(ReleaseToken()));
    EXPECT_TRUE(again.Matches(KeyFacts{"fw-key", {0xa1}}));
    EXPECT_FALSE(again.Matches(KeyFacts{"fw-key", {0xa2}}));
}

TEST(Pkcs11Uri, ForTokenNamesTheTokenByItsLabel)
{
    const Pkcs11Uri token = Pkcs11Uri::ForToken("release");
    EXPECT_EQ(token.Text(), "pkcs11:token=release");
    EXPECT_TRUE(token.Matches(ReleaseToken()));
    TokenFacts other = ReleaseToken();
    other.label = "release2";
    EXPECT_FALSE(token.Matches(other));
}

}  // namespace
