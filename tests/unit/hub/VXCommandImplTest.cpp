// The preference commands: which setters they call in which order, what they answer, what they signal. Not real: the
// controller and the hub, which record.
#include "hub/VXCommandImpl.h"
#include "hub/Exceptions.h"
#include "tests/unit/hub/CommandHandlerFixture.h"

#include <boost/archive/archive_exception.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using namespace testing_support;
using Sentrel::STPreferences;

namespace {

const Lines kDefaultSetters{"setEnableSentrel 1",      "setEnableSafeSearch 0",  "setRedSiteAction 3",
                            "setYellowSiteAction 2",   "setUnratedSiteAction 1", "setEnableCategoryBlocking 0",
                            "setSTUnVerifiedAction 1", "signalPrefChange 10"};

STPreferences individual(int type) {
    STPreferences wanted;
    wanted.m_bIndividual = true;
    wanted.m_prefType = static_cast<Sentrel::STPrefType>(type);
    return wanted;
}

// Dispatch.

class AnUnknownCommand : public ACommandHandler, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, AnUnknownCommand, testing::Values(100005, 99999, 1002, 1005, 1007, 1020, 1023, 0, -1));

TEST_P(AnUnknownCommand, IsRefusedWithALineAndWithoutAReply) {
    const Lines lines = leveled([this] { EXPECT_FALSE(deliver(GetParam())); });
    EXPECT_EQ(lines, (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id " + std::to_string(GetParam()),
                            "1 VXCommandImpl::handleCommand - Recieved unrecognised Command"}));
    EXPECT_TRUE(hub.calls().empty());
    EXPECT_TRUE(store.calls.empty());
}

class AKnownCommand : public ACommandHandler, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, AKnownCommand, testing::Values(100000, 100001, 100002, 100003, 100004));

TEST_P(AKnownCommand, IsAnsweredWithItsWholeHeader) {
    EXPECT_TRUE(deliver(GetParam()));
    EXPECT_EQ(reply().header.m_commandId, GetParam());
    EXPECT_EQ(reply().header.m_token, 0x123456789abcdef0U);
    EXPECT_EQ(reply().header.m_sourceId, 4);
    EXPECT_EQ(reply().header.m_targetId, 7);
    EXPECT_TRUE(reply().header.m_bFlag);
    EXPECT_EQ(reply().header.m_sequence, 99);
    EXPECT_TRUE(reply().valid);
}

TEST_P(AKnownCommand, PassesOnWhatTheBrokerThrowsAtTheReply) {
    hub.before = [](const std::string& operation) {
        if (operation == "sendCommandResponse") {
            throw HVB::HVBException(-1, "gone");
        }
    };
    EXPECT_THROW(deliver(GetParam()), HVB::HVBException);
    EXPECT_THAT(store.calls, testing::Not(testing::Contains(testing::StartsWith("signalPrefChange"))));
}

// A payload that does not begin like an archive.

class APayloadThatIsNoArchive : public ACommandHandler, public testing::WithParamInterface<std::wstring> {};

INSTANTIATE_TEST_SUITE_P(Each, APayloadThatIsNoArchive,
                         testing::Values(L"", L"noise", L"22 serialization::archivX 18 0 0",
                                         L"22 serialization::archive 9999 0 0"));

TEST_P(APayloadThatIsNoArchive, IsAnsweredWithTheGenericErrorWhenOnePreferenceIsSet) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliverText(100002, GetParam())); });
    EXPECT_EQ(code(), 180001);
    EXPECT_TRUE(store.calls.empty()) << "neither a setter nor a signal";
    EXPECT_EQ(lines, (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100002",
                            "1 VXCommandImpl::handleCommand - Recieved ST_SET_PREFS_INDIVIDUAL command",
                            "1 VXCommandImpl::handleSetPrefIndividual- Entered",
                            "1 VXCommandImpl::handleSetPrefIndividual - - Caught generic exception ",
                            "1 VXCommandImpl::handleSetPrefIndividual - Sent response through HVBCommBroker"}));
}

TEST_P(APayloadThatIsNoArchive, LeavesTheHandlersThatDoNotCatchItWithoutAReplyOrAChange) {
    for (const int id : {100000, 100003}) {
        EXPECT_THROW(deliverText(id, GetParam()), boost::archive::archive_exception) << id;
    }
    EXPECT_TRUE(hub.replies.empty());
    EXPECT_TRUE(store.calls.empty()) << "neither a setter nor a signal";
}

TEST_P(APayloadThatIsNoArchive, MakesNoDifferenceToCommandsThatReadNone) {
    for (const int id : {100001, 100004, 1003, 1022}) {
        hub.forget();
        EXPECT_TRUE(deliver(id));
        EXPECT_TRUE(deliverText(id, GetParam()));
        ASSERT_EQ(hub.replies.size(), 2U) << id;
        EXPECT_TRUE(hub.replies[1].succeeded && hub.replies[1].valid) << id;
        EXPECT_EQ(hub.replies[1].text, hub.replies[0].text) << id;
    }
}

TEST_P(APayloadThatIsNoArchive, LeavesAnUnknownCommandUnknown) {
    EXPECT_FALSE(deliverText(100005, GetParam()));
    EXPECT_TRUE(hub.calls().empty());
}

// Get.

using AGetOfAllPreferences = ACommandHandler;

TEST_F(AGetOfAllPreferences, AnswersWithEveryPreferenceAndKeysInBase64) {
    store.values.m_bEnable = false;
    store.values.m_bSafeSearch = true;
    store.values.m_redSiteAction = 30;
    store.values.m_yellowSiteAction = 20;
    store.values.m_unratedSiteAction = 10;
    store.values.m_bCategoryBlocking = true;
    store.values.m_bAllowOverBlock = true;
    store.values.m_unverifiedAction = -1;
    store.values.m_allowBlockDetails = {{"http://b.example", 1}, {"a", 0}};
    store.values.m_categoryBlockDetails = {{"Games", 1}};
    EXPECT_TRUE(deliver(100001));
    const auto snapshot = reply().payload<STPreferences>();
    EXPECT_TRUE(reply().succeeded);
    EXPECT_FALSE(snapshot.m_bEnable);
    EXPECT_TRUE(snapshot.m_bSafeSearch);
    EXPECT_EQ(snapshot.m_redSiteAction, 30);
    EXPECT_EQ(snapshot.m_yellowSiteAction, 20);
    EXPECT_EQ(snapshot.m_unratedSiteAction, 10);
    EXPECT_TRUE(snapshot.m_bCategoryBlocking);
    EXPECT_TRUE(snapshot.m_bAllowOverBlock);
    EXPECT_EQ(snapshot.m_unverifiedAction, -1);
    EXPECT_EQ(snapshot.m_allowBlockDetails, (Sentrel::AllowBlockDetails{{"aHR0cDovL2IuZXhhbXBsZQ==", 1}, {"YQ==", 0}}));
    EXPECT_EQ(snapshot.m_categoryBlockDetails, (Sentrel::CategoryBlockDetails{{"Games", 1}}));
    EXPECT_EQ(snapshot.m_prefType, 10);
    EXPECT_FALSE(snapshot.m_bIndividual);
    EXPECT_TRUE(store.calls.empty()) << "a get sets and signals nothing";
}

TEST_F(AGetOfAllPreferences, IsTraced) {
    EXPECT_EQ(leveled([this] { deliver(100001); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100001",
                     "2 VXCommandImpl::handleCommand - Recieved ST_GET_PREFS command",
                     "2 VXCommandImpl::handleGetPrefs- Entered",
                     "3 VXCommandImpl::handleGetPrefs - Sent response through HVBCommBroker"}));
}

TEST_F(AGetOfAllPreferences, PassesOnWhatTheControllerThrowsAndSendsNothing) {
    store.before = [](const std::string&) { throw HVB::HVBException(3, "no configuration"); };
    EXPECT_THROW(deliver(100001), HVB::HVBException);
    EXPECT_TRUE(hub.replies.empty());
}

// Set and reset as a whole.

using ASetOfAllPreferences = ACommandHandler;

TEST_F(ASetOfAllPreferences, CallsItsSettersThenAnswersThenSignals) {
    STPreferences wanted;
    wanted.m_bEnable = false;
    wanted.m_bSafeSearch = true;
    wanted.m_redSiteAction = 1;
    wanted.m_yellowSiteAction = 3;
    wanted.m_unratedSiteAction = 2;
    wanted.m_bCategoryBlocking = true;
    wanted.m_unverifiedAction = 8;
    wanted.m_bAllowOverBlock = true;
    wanted.setAllowBlockDetails({{"http://a.example", 1}});
    wanted.m_categoryBlockDetails = {{"Games", 1}};
    wanted.m_prefType = Sentrel::ST_ENABLE;
    wanted.m_bIndividual = true;
    store.before = [this](const std::string& operation) {
        if (operation == "signalPrefChange") {
            EXPECT_EQ(hub.replies.size(), 1u) << "the reply comes first";
        }
    };
    EXPECT_TRUE(deliver(100000, wanted));
    EXPECT_EQ(store.calls, (Lines{"setEnableSentrel 0", "setEnableSafeSearch 1", "setRedSiteAction 1",
                                  "setYellowSiteAction 3", "setUnratedSiteAction 2", "setEnableCategoryBlocking 1",
                                  "setSTUnVerifiedAction 8", "signalPrefChange 10"}));
    EXPECT_EQ(code(), 180000);
}

TEST_F(ASetOfAllPreferences, AppliesTheDefaultsWithoutAPayload) {
    EXPECT_TRUE(deliver(100000));
    EXPECT_EQ(store.calls, kDefaultSetters);
    EXPECT_EQ(code(), 180000);
}

TEST_F(ASetOfAllPreferences, GoesOnBehindAFailureAndSignalsAllTheSame) {
    store.results = {{"setEnableSentrel", 180003}};
    EXPECT_TRUE(deliver(100000));
    EXPECT_EQ(store.calls, kDefaultSetters);
    EXPECT_EQ(code(), 180003);
}

TEST_F(ASetOfAllPreferences, AnswersWithTheLastFailure) {
    store.results = {{"setEnableSentrel", 180003}, {"setRedSiteAction", 180006}};
    deliver(100000);
    EXPECT_EQ(code(), 180006);
}

TEST_F(ASetOfAllPreferences, AnswersWithTheGenericFailureWhateverComesAfterIt) {
    store.results = {{"setEnableSentrel", 180003}, {"setEnableSafeSearch", 180001}, {"setRedSiteAction", 180006}};
    deliver(100000);
    EXPECT_EQ(code(), 180001);
    EXPECT_EQ(store.calls, kDefaultSetters);
}

TEST_F(ASetOfAllPreferences, StopsAtAnExceptionAnswersItsCodeAndSignals) {
    store.before = [](const std::string& operation) {
        if (operation == "setRedSiteAction") {
            throw Sentrel::VXException(180003, "the\tthird");
        }
    };
    const Lines lines = leveled([this] { deliver(100000); });
    EXPECT_EQ(store.calls,
              (Lines{"setEnableSentrel 1", "setEnableSafeSearch 0", "setRedSiteAction 3", "signalPrefChange 10"}));
    EXPECT_EQ(code(), 180003);
    EXPECT_EQ(lines, (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100000",
                            "1 VXCommandImpl::handleCommand - Recieved ST_SET_PREFS command",
                            "2 VXCommandImpl::handleSetPrefs- Entered",
                            "1 VXCommandImpl::handleSetPrefs - Caught exception the\\x09third",
                            "3 VXCommandImpl::handleSetPrefs - Sent response through HVBCommBroker",
                            "5 signalPrefChange called from VXCommandImpl::handleSetPrefs()"}));
}

TEST_F(ASetOfAllPreferences, AnswersTheGenericCodeAfterAnyOtherException) {
    store.before = [](const std::string& operation) {
        if (operation == "setEnableSafeSearch") {
            throw std::runtime_error("unknown");
        }
    };
    const Lines lines = leveled([this] { deliver(100000); });
    EXPECT_EQ(code(), 180001);
    EXPECT_EQ(store.calls, (Lines{"setEnableSentrel 1", "setEnableSafeSearch 0", "signalPrefChange 10"}));
    EXPECT_THAT(lines, testing::Contains("1 CommandImpl::handleSetPrefs - - Caught generic exception "));
}

TEST_F(ASetOfAllPreferences, LetsTheArchivesExceptionOutBeforeAnySetterRan) {
    EXPECT_THROW(deliverBehindTheHeader(100000, L" 0 0 1 x"), boost::archive::archive_exception);
    EXPECT_TRUE(store.calls.empty());
    EXPECT_TRUE(hub.replies.empty());
}

using AReset = ACommandHandler;

TEST_F(AReset, CallsItsSettersThenAnswersThenSignals) {
    EXPECT_TRUE(deliver(100004));
    EXPECT_EQ(store.calls,
              (Lines{"setEnableSentrel 1", "setEnableSafeSearch 0", "setRedSiteAction 3", "setYellowSiteAction 2",
                     "setUnratedSiteAction 1", "setEnableCategoryBlocking 0", "setAllowBlockDetails",
                     "setAllowOverBlockPrecedenceStatus 0", "signalPrefChange 10"}));
    EXPECT_EQ(code(), 180000);
}

TEST_F(AReset, AnswersAFailureAndSignalsAllTheSame) {
    store.results = {{"setAllowBlockDetails", 180003}};
    deliver(100004);
    EXPECT_EQ(code(), 180003);
    EXPECT_EQ(store.calls.back(), "signalPrefChange 10");
    EXPECT_EQ(store.calls.size(), 9u);
}

TEST_F(AReset, IsTraced) {
    store.before = [](const std::string& operation) {
        if (operation == "setEnableCategoryBlocking") {
            throw std::runtime_error("unknown");
        }
    };
    EXPECT_EQ(leveled([this] { deliver(100004); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100004",
                     "1 VXCommandImpl::handleCommand - Recieved ST_RESET_PREFS command",
                     "2 VXCommandImpl::handleResetPrefs- Entered",
                     "1 CommandImpl::handleResetPrefs - - Caught generic exception ",
                     "2 VXCommandImpl::handleResetPrefs - Sent response through HVBCommBroker",
                     "2 signalPrefChange called from VXCommandImpl::handleResetPrefs()"}));
    store.before = [](const std::string& operation) {
        if (operation == "setEnableCategoryBlocking") {
            throw Sentrel::VXException(5, "five");
        }
    };
    EXPECT_THAT(leveled([this] { deliver(100004); }),
                testing::Contains("1 VXCommandImpl::handleResetPrefs - Caught exception five"));
    EXPECT_EQ(code(), 5);
}

// One preference.

struct Type {
    int value;
    const char* setter;
    void (*change)(STPreferences& wanted);
};

const Type kTypes[] = {
    {0, "setEnableSentrel 0", [](STPreferences& wanted) { wanted.m_bEnable = false; }},
    {1, "setEnableSafeSearch 1", [](STPreferences& wanted) { wanted.m_bSafeSearch = true; }},
    {2, "setRedSiteAction 7", [](STPreferences& wanted) { wanted.m_redSiteAction = 7; }},
    {3, "setYellowSiteAction 7", [](STPreferences& wanted) { wanted.m_yellowSiteAction = 7; }},
    {4, "setUnratedSiteAction 7", [](STPreferences& wanted) { wanted.m_unratedSiteAction = 7; }},
    {5, "setSTUnVerifiedAction 7", [](STPreferences& wanted) { wanted.m_unverifiedAction = 7; }},
    {6, "setEnableCategoryBlocking 1", [](STPreferences& wanted) { wanted.m_bCategoryBlocking = true; }},
    {7, "setAllowBlockDetails http://b.example=1 a=0",
     [](STPreferences& wanted) {
         wanted.setAllowBlockDetails({{"http://b.example", 1}, {"a", 0}});
     }},
    {8, "setCategoryBlockDetails Games=3 News=0",
     [](STPreferences& wanted) {
         wanted.m_categoryBlockDetails = {{"News", 0}, {"Games", 3}};
     }},
};

class AnIndividualPreference : public ACommandHandler, public testing::WithParamInterface<Type> {};

INSTANTIATE_TEST_SUITE_P(Each, AnIndividualPreference, testing::ValuesIn(kTypes),
                         [](const auto& type) { return "Type" + std::to_string(type.param.value); });

TEST_P(AnIndividualPreference, IsSetByItsSetterAloneAndSignalledAfterTheReply) {
    STPreferences wanted = individual(GetParam().value);
    GetParam().change(wanted);
    EXPECT_TRUE(deliver(100002, wanted));
    EXPECT_EQ(store.calls, (Lines{GetParam().setter, "signalPrefChange " + std::to_string(GetParam().value)}));
    EXPECT_EQ(code(), 180000);
}

TEST_P(AnIndividualPreference, SignalsNothingWhenItsSetterFails) {
    const std::string setter(GetParam().setter);
    store.results = {{setter.substr(0, setter.find(' ')), 180003}};
    STPreferences wanted = individual(GetParam().value);
    GetParam().change(wanted);
    deliver(100002, wanted);
    EXPECT_EQ(store.calls, (Lines{GetParam().setter}));
    EXPECT_EQ(code(), 180003);
}

TEST_P(AnIndividualPreference, IsNotSetWithoutTheIndividualFlag) {
    STPreferences wanted = individual(GetParam().value);
    GetParam().change(wanted);
    wanted.m_bIndividual = false;
    EXPECT_TRUE(deliver(100002, wanted));
    EXPECT_TRUE(store.calls.empty());
    EXPECT_EQ(code(), 180004);
}

TEST_P(AnIndividualPreference, IsReadWithTheOthersAtTheirDefaults) {
    for (const Type& type : kTypes) {
        type.change(store.values);
    }
    store.values.m_allowBlockDetails = {{"http://b.example", 1}, {"a", 0}}; // the store's keys are plain
    EXPECT_TRUE(deliver(100003, GetParam().value));
    EXPECT_TRUE(reply().succeeded);
    STPreferences expected = individual(GetParam().value);
    GetParam().change(expected);
    HVB::CommandResult same;
    same.writePayload(expected);
    EXPECT_EQ(reply().text, same.m_pOutStream->str());
    EXPECT_TRUE(store.calls.empty());
}

class ATypeThatIsNone : public ACommandHandler, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, ATypeThatIsNone, testing::Values(9, 10, 11, -1, 2147483647, -2147483647 - 1));

TEST_P(ATypeThatIsNone, IsAnsweredAsFailedWithoutAPayloadWhenRead) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(100003, GetParam())); });
    EXPECT_FALSE(reply().succeeded);
    EXPECT_TRUE(reply().valid);
    EXPECT_FALSE(reply().hasPayload);
    EXPECT_EQ(lines,
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100003",
                     "2 VXCommandImpl::handleCommand - Recieved ST_GET_PREFS_INDIVIDUAL command",
                     "1 VXCommandImpl::handleGetPrefIndividual- Entered",
                     "1 VXCommandImpl::handleGetPrefIndividual- Recieved Preference Type " + std::to_string(GetParam()),
                     "1 VXCommandImpl::handleGetPrefIndividual- Error Invalid Preference type found "}));
}

TEST_P(ATypeThatIsNone, IsRefusedWithItsCodeWhenSet) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(100002, individual(GetParam()))); });
    EXPECT_EQ(code(), 180004);
    EXPECT_TRUE(store.calls.empty());
    EXPECT_EQ(lines,
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100002",
                     "1 VXCommandImpl::handleCommand - Recieved ST_SET_PREFS_INDIVIDUAL command",
                     "1 VXCommandImpl::handleSetPrefIndividual- Entered", "3 PrefType is " + std::to_string(GetParam()),
                     "1 VXCommandImpl::handleSetPrefIndividual- Error Invalid Preference type found ",
                     "1 VXCommandImpl::handleSetPrefIndividual - Sent response through HVBCommBroker"}));
}

using AGetOfOnePreference = ACommandHandler;

TEST_F(AGetOfOnePreference, WithoutAPayloadTakesTheWayOfAnUnknownType) {
    EXPECT_TRUE(deliver(100003));
    EXPECT_FALSE(reply().succeeded);
    EXPECT_TRUE(reply().valid);
    EXPECT_FALSE(reply().hasPayload);
}

TEST_F(AGetOfOnePreference, WithAnUnreadablePayloadLetsTheExceptionOut) {
    EXPECT_THROW(deliverBehindTheHeader(100003, L" x"), boost::archive::archive_exception);
    EXPECT_TRUE(hub.replies.empty());
}

TEST_F(AGetOfOnePreference, GivesAnEmptyListWithItsTypeAndFlag) {
    deliver(100003, 7);
    const auto snapshot = reply().payload<STPreferences>();
    EXPECT_EQ(snapshot.m_prefType, 7);
    EXPECT_TRUE(snapshot.m_bIndividual);
    EXPECT_TRUE(snapshot.m_allowBlockDetails.empty());
}

TEST_F(AGetOfOnePreference, IsTracedWithTheSizeOfItsList) {
    store.values.m_allowBlockDetails = {{"http://b.example", 1}, {"a", 0}};
    store.values.m_categoryBlockDetails = {{"Games", 1}};
    EXPECT_EQ(leveled([this] { deliver(100003, 7); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100003",
                     "2 VXCommandImpl::handleCommand - Recieved ST_GET_PREFS_INDIVIDUAL command",
                     "1 VXCommandImpl::handleGetPrefIndividual- Entered",
                     "1 VXCommandImpl::handleGetPrefIndividual- Recieved Preference Type 7",
                     "1 VXCommandImpl::handleGetPrefIndividual - Inside ST_ALLOW_BLOCK_LIST",
                     "3 VXCommandImpl::handleGetPrefIndividual- URL Allow/Block Count - 2",
                     "1 VXCommandImpl::handleGetPrefs - Sent response through HVBCommBroker"}));
    const Lines lines = leveled([this] { deliver(100003, 8); });
    EXPECT_EQ(lines[4], "1 VXCommandImpl::handleGetPrefIndividual - Inside ST_CATEGORY_BLOCK_LIST");
    EXPECT_EQ(lines[5], "3 VXCommandImpl::handleGetPrefIndividual- Category Allow/Block Count - 1");
}

using ASetOfOnePreference = ACommandHandler;

TEST_F(ASetOfOnePreference, WithoutAPayloadIsRefused) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliver(100002)); });
    EXPECT_EQ(code(), 180004);
    EXPECT_TRUE(store.calls.empty());
    EXPECT_THAT(lines,
                testing::Contains("1 VXCommandImpl::handleSetPrefIndividual- Error Preference Indivisual Not Set "));
}

TEST_F(ASetOfOnePreference, WithAnUnreadablePayloadIsAnsweredWithTheGenericCode) {
    const Lines lines = leveled([this] { EXPECT_TRUE(deliverBehindTheHeader(100002, L" 0 0 1 0 x")); });
    EXPECT_EQ(code(), 180001);
    EXPECT_TRUE(store.calls.empty());
    EXPECT_THAT(lines, testing::Contains("1 VXCommandImpl::handleSetPrefIndividual - - Caught generic exception "));
}

TEST_F(ASetOfOnePreference, WithABadKeyIsRefusedAndStoresNothing) {
    STPreferences wanted = individual(7);
    wanted.m_allowBlockDetails = {{"YQ==", 1}, {"!", 1}};
    deliver(100002, wanted);
    EXPECT_EQ(code(), 180001);
    EXPECT_TRUE(store.calls.empty());
}

TEST_F(ASetOfOnePreference, AnswersWithTheCodeOfAnException) {
    store.before = [](const std::string& operation) {
        if (operation == "setEnableSentrel") {
            throw Sentrel::VXException(180003, "no file");
        }
    };
    const Lines lines = leveled([this] { deliver(100002, individual(0)); });
    EXPECT_EQ(code(), 180003);
    EXPECT_THAT(lines, testing::Contains("1 VXCommandImpl::handleSetPrefIndividual - Caught exception no file"));
    EXPECT_EQ(store.calls, Lines{"setEnableSentrel 1"});
}

TEST_F(ASetOfOnePreference, IsTracedUnderItsOwnAndTheOthersName) {
    STPreferences wanted = individual(8);
    wanted.m_categoryBlockDetails = {{"Games", 1}};
    EXPECT_EQ(leveled([&] { deliver(100002, wanted); }),
              (Lines{"3 VXCommandImpl::handleCommand - Recieved command with id 100002",
                     "1 VXCommandImpl::handleCommand - Recieved ST_SET_PREFS_INDIVIDUAL command",
                     "1 VXCommandImpl::handleSetPrefIndividual- Entered", "3 PrefType is 8",
                     "1 VXCommandImpl::handleSetPrefIndividual - Inside ST_CATEGORY_BLOCK_LIST",
                     "3 VXCommandImpl::handleGetPrefIndividual- URL Allow/Block Count - 1",
                     "1 VXCommandImpl::handleSetPrefIndividual - Sent response through HVBCommBroker",
                     "2 signalPrefChange called from VXCommandImpl::handleSetPrefIndividual()"}));
    EXPECT_EQ(leveled([&] { deliver(100002, individual(7)); })[4],
              "1 VXCommandImpl::handleSetPrefIndividual - Inside ST_ALLOW_BLOCK_LIST");
}

// The reply that says failure in its flags. Only the class itself may send it.

struct ADerivedHandler : Sentrel::VXCommandImpl {
    template <class Handler>
    static constexpr bool sendsErrors = requires(Handler& handler, HVB::CommandData& command) {
        handler.sendCommandError(command, Sentrel::ST_ERROR_NONE);
    };
};
static_assert(!ADerivedHandler::sendsErrors<ADerivedHandler>);

using SendError = void (Sentrel::VXCommandImpl::*)(HVB::CommandData&, Sentrel::STError);
SendError sendError();
template <SendError Operation>
struct Opened {
    friend SendError sendError() { return Operation; }
};
// An explicit instantiation may name what is private.
template struct Opened<&Sentrel::VXCommandImpl::sendCommandError>;

using AnErrorReply = ACommandHandler;

TEST_F(AnErrorReply, CarriesTheCodeAndTheFlagOfFailure) {
    const Lines lines = leveled([this] {
        HVB::CommandData command(1234, 7, true);
        (handler.*sendError())(command, Sentrel::ST_ERROR_DATABASE);
    });
    EXPECT_FALSE(reply().succeeded);
    EXPECT_TRUE(reply().valid);
    EXPECT_EQ(reply().payload<int>(), 180003);
    EXPECT_EQ(reply().header.m_commandId, 1234);
    EXPECT_EQ(lines, (Lines{"2 VXCommandImpl::sendCommandError- Entered",
                            "3 VXCommandImpl::sendCommandError - Sent response through HVBCommBroker"}));
}

} // namespace
