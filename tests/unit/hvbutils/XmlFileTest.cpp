// Reading and changing a configuration file. The files and the parser are real.
#include "platform/hvbutils/XmlFile.h"

#include "platform/hvbutils/ConfigurationLimits.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/unit/hvbutils/ConfigFile.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <utility>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

template <class Call>
std::string errorOf(Call&& call) {
    try {
        call();
    } catch (const LibXmlError& error) {
        return error.what();
    }
    return "none";
}

std::string nested(std::size_t depth) {
    std::string text;
    for (std::size_t level = 0; level < depth; ++level) {
        text += "<a>\n";
    }
    for (std::size_t level = 0; level < depth; ++level) {
        text += "</a>";
    }
    return text;
}

TEST_F(AConfigFile, TellsTheTextOfEachElement) {
    const XmlFile file(path);
    EXPECT_EQ(file.textAt("/HVConfiguration/LogLevel"), "information");
    EXPECT_EQ(file.textAt("/HVConfiguration/PatchVersion"), "");
    EXPECT_EQ(file.textAt("/HVConfiguration/Hotfixes"), " ");
    EXPECT_TRUE(file.truthAt("/HVConfiguration/SyslogEnable"));
}

TEST_F(AConfigFile, TellsATextBesideCommentsInCharacterDataAndInReferences) {
    writeInside("<LogLevel>a<!-- no -->&lt;&amp;&#233;<![CDATA[<b>]]></LogLevel>");
    EXPECT_EQ(value(), "a<&\xC3\xA9<b>");
}

TEST_F(AConfigFile, TellsATruthByItsWords) {
    for (const auto& [text, truth] :
         {std::pair{"true", true}, {"1", true}, {" true\n", true}, {"false", false}, {"0", false}}) {
        writeInside(std::string("<S>") + text + "</S>");
        EXPECT_EQ(XmlFile(path).truthAt("/HVConfiguration/S"), truth) << text;
    }
    for (const char* text : {"yes", "", "TRUE", "2", "true false"}) {
        writeInside(std::string("<S>") + text + "</S>");
        EXPECT_THROW(XmlFile(path).truthAt("/HVConfiguration/S"), LibXmlError) << text;
    }
}

TEST_F(AConfigFile, ThrowsWhereAnXPathDoesNotFindOneElementWithAText) {
    write("<HVConfiguration><A n='1'>x</A><B/><B/></HVConfiguration>");
    const XmlFile file(path);
    const auto error = [&](const char* xpath) { return errorOf([&] { file.textAt(xpath); }); };
    EXPECT_EQ(error("/HVConfiguration/C"), path + ": /HVConfiguration/C: finds nothing, line 1");
    EXPECT_EQ(error("/HVConfiguration/B"), path + ": /HVConfiguration/B: finds several, line 1");
    EXPECT_EQ(error("/HVConfiguration/A/@n"), path + ": /HVConfiguration/A/@n: finds no element");
    EXPECT_EQ(error("count(/HVConfiguration/B)"), path + ": count(/HVConfiguration/B): finds nothing");
    EXPECT_EQ(error("/HVConfiguration"), path + ": /HVConfiguration: holds more than a text, line 1");
    EXPECT_EQ(error("/HVConfiguration/["), path + ": /HVConfiguration/[: Invalid expression");
    EXPECT_THAT(error("nosuch(/)"), StartsWith(path + ": nosuch(/): "));
    EXPECT_THAT(error("/x:A"), StartsWith(path + ": /x:A: "));
    EXPECT_EQ(error(nullptr), path + ": no XPath was given");
}

TEST_F(AConfigFile, SaysInWhichLineAnElementIsMissingOrTooMuch) {
    write("<HVConfiguration>\n<A>x</A>\n<B/>\n<B/>\n<S>\n<T/></S><U>no</U>\n</HVConfiguration\n>\n");
    const XmlFile file(path);
    const auto reason = [&](const char* xpath) {
        try {
            file.truthAt(xpath);
        } catch (const LibXmlError& error) {
            return error.reason();
        }
        return std::string("accepted");
    };
    EXPECT_EQ(reason("/HVConfiguration/C"), "/HVConfiguration/C: finds nothing, line 8") << "where its parent ends";
    EXPECT_EQ(reason("/HVConfiguration/S/C"), "/HVConfiguration/S/C: finds nothing, line 6");
    EXPECT_EQ(reason("/HVConfiguration/B"), "/HVConfiguration/B: finds several, line 4") << "the second is too much";
    EXPECT_EQ(reason("/HVConfiguration/S"), "/HVConfiguration/S: holds more than a text, line 6");
    EXPECT_EQ(reason("/HVConfiguration/U"), "/HVConfiguration/U: \"no\" is neither true nor false, line 6");
    EXPECT_EQ(reason("/Other/C"), "/Other/C: finds nothing");
    EXPECT_EQ(reason("/HVConfiguration/B/C"), "/HVConfiguration/B/C: finds nothing") << "there are two parents";
}

TEST_F(AConfigFile, TellsWhetherAnXPathFindsAnything) {
    write("<HVConfiguration><A n='1'>x</A><B/><B/></HVConfiguration>");
    const XmlFile file(path);
    for (const char* xpath : {"/HVConfiguration", "/HVConfiguration/A", "/HVConfiguration/B", "//@n"}) {
        EXPECT_TRUE(file.finds(xpath)) << xpath;
    }
    for (const char* xpath : {"/HVConfiguration/C", "/A", "/HVConfiguration/A/C", "//@m", "1 = 2"}) {
        EXPECT_FALSE(file.finds(xpath)) << xpath;
    }
    EXPECT_EQ(errorOf([&] { file.finds("]["); }), path + ": ][: Invalid expression");
    EXPECT_EQ(errorOf([&] { file.finds(nullptr); }), path + ": no XPath was given");
}

TEST_F(AConfigFile, SaysWhichLineIsMalformed) {
    write("<HVConfiguration>\n<LogLevel>\n</HVConfiguration>");
    EXPECT_THAT(refusal(), StartsWith(path + ": line 3: Opening and ending tag mismatch: LogLevel"));
    write("");
    EXPECT_THAT(refusal(), StartsWith(path + ": line 1: Document is empty"));
    write(std::string("<a>\0</a>", 8));
    EXPECT_THAT(refusal(), StartsWith(path + ": line 1: "));
    write("<a>\xFF</a>");
    EXPECT_THAT(refusal(), HasSubstr("not proper UTF-8"));
}

TEST_F(AConfigFile, PutsItsErrorsOnOnePrintableLine) {
    write("<a>\n\xFF</a>");
    EXPECT_EQ(refusal().find('\n'), std::string::npos);
    writeInside("<S>\xE2\x80\xAEx\n</S>");
    const XmlFile file(path);
    EXPECT_THAT(errorOf([&] { file.truthAt("/HVConfiguration/S"); }), HasSubstr("\"\\u{202e}x\""));
}

TEST_F(AConfigFile, WritesNothingToStderrOrStdoutWhateverFails) {
    const std::string nothing;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    XmlFile file(path);
    for (const char* xpath : {"/nowhere", "][", "nosuch(/)", "/x:A", "$v"}) {
        EXPECT_THROW(file.textAt(xpath), LibXmlError);
        EXPECT_THROW(file.setTextAt(xpath, "x"), LibXmlError);
    }
    EXPECT_THROW(file.setTextAt(kLevel, "\1"), LibXmlError);
    EXPECT_FALSE(file.saveTo("/nowhere/at/all"));
    for (const char* text : {"", "<a", "<a>\xFF</a>", "<!DOCTYPE a []><a/>", "<x:a/>", "<?xml encoding='no'?><a/>"}) {
        write(text);
        static_cast<void>(refusal());
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), nothing);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), nothing);
}

TEST_F(AConfigFile, IsRefusedWhenItIsMissingOrNoFileAndNeverBlocks) {
    std::filesystem::remove(path);
    EXPECT_EQ(refusal(), path + ": No such file or directory");
    std::filesystem::create_directory(path);
    EXPECT_EQ(refusal(), path + ": not a regular file");
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(refusal(), path + ": not a regular file");
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/dev/zero", path);
    EXPECT_EQ(refusal(), path + ": not a regular file");
}

TEST_F(AConfigFile, BehindALinkIsRefusedForWhoDoesNotFollowLinks) {
    const std::string link = directory + "/link.xml";
    const std::string linkedDirectory = root.file("d");
    std::filesystem::create_symlink(path, link);
    std::filesystem::create_directory_symlink(directory, linkedDirectory);
    const auto noLinks = XmlFile::Links::Refuse;
    EXPECT_EQ(XmlFile(link).textAt(kLevel), "information");
    EXPECT_EQ(errorOf([&] { const XmlFile file(link, noLinks); }),
              link + ": a symbolic link, which is not followed here");
    EXPECT_EQ(XmlFile(path, noLinks).textAt(kLevel), "information");
    EXPECT_EQ(XmlFile(linkedDirectory + "/HVConfig.xml", noLinks).textAt(kLevel), "information");
}

TEST_F(AConfigFile, BehindALinkIsReadByAnotherUserWhenEverybodyMayReadIt) {
    const std::string link = directory + "/link.xml";
    std::filesystem::create_symlink(path, link);
    const auto toPublic = XmlFile::Links::FollowToPublic;
    EXPECT_EQ(XmlFile(link, toPublic).textAt(kLevel), "information");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(errorOf([&] { const XmlFile file(link, toPublic); }),
              link + ": a symbolic link to a file that not every user may read");
    EXPECT_EQ(XmlFile(path, toPublic).textAt(kLevel), "information") << "which is no link";
    std::filesystem::remove(path);
    EXPECT_EQ(errorOf([&] { const XmlFile file(link, toPublic); }), link + ": No such file or directory");
}

TEST_F(AConfigFile, OfExactlyTheLargestSizeIsReadAndOneByteMoreIsRefused) {
    const std::string frame = "<HVConfiguration></HVConfiguration>\n";
    writeInside(std::string(kMaxConfigFileBytes - frame.size(), ' '));
    ASSERT_EQ(std::filesystem::file_size(path), kMaxConfigFileBytes);
    EXPECT_EQ(refusal(), "accepted");
    writeInside(std::string(kMaxConfigFileBytes - frame.size() + 1, ' '));
    EXPECT_EQ(refusal(), path + ": larger than 65536 bytes");
}

/// With a limit of 1 MiB the parser needed minutes for such a file, and this test ran into its time limit.
TEST_F(AConfigFile, OfTheLargestSizeThatIsAllAttributesIsReadInTime) {
    std::string attributes;
    for (int number = 0; attributes.size() < kMaxConfigFileBytes - 100; ++number) {
        attributes += " a" + std::to_string(number) + "=''";
    }
    write("<HVConfiguration><LogLevel" + attributes + "/></HVConfiguration>");
    EXPECT_EQ(value(), "");
}

long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST_F(AConfigFile, OfAHundredMebibytesIsRefusedBeforeItIsRead) {
    std::filesystem::resize_file(path, std::uintmax_t{100} << 20);
    const long before = peakKilobytes();
    EXPECT_EQ(refusal(), path + ": larger than 65536 bytes");
    EXPECT_LT(peakKilobytes() - before, 16 * 1024);
}

TEST_F(AConfigFile, ThatNestsTooDeepIsRefusedWithTheLine) {
    static_assert(kMaxConfigDepth == 100);
    write(nested(100));
    EXPECT_EQ(refusal(), "accepted");
    for (const std::size_t depth : {101U, 300U, 8000U}) {
        write(nested(depth));
        EXPECT_EQ(refusal(), path + ": line 101: nests deeper than 100 elements") << depth;
    }
}

TEST_F(AConfigFile, IsRefusedWithADocumentType) {
    const std::string bomb = "<!DOCTYPE a [<!ENTITY b \"xxxxxxxxxx\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
                             "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">]><a n=\"&d;&d;\">&d;</a>";
    for (const std::string& text :
         {std::string("<!DOCTYPE a><a/>"), std::string("<!DOCTYPE a [<!ENTITY b \"x\">]><a/>"),
          "<!DOCTYPE a SYSTEM \"" + path + "\"><a/>", "<!DOCTYPE a [<!ENTITY % p SYSTEM \"" + path + "\"> %p;]><a/>",
          bomb}) {
        write(text);
        EXPECT_EQ(refusal(), path + ": a document type is not allowed here") << text;
    }
    write("<a>&b;</a>");
    EXPECT_THAT(refusal(), HasSubstr("Entity 'b' not defined"));
}

TEST_F(AConfigFile, ReadsNothingOutsideItself) {
    const std::string other = directory + "/other.xml";
    std::ofstream(other) << "<LogLevel>debug</LogLevel>";
    writeInside("<xi:include xmlns:xi='http://www.w3.org/2001/XInclude' href='" + other + "'/>");
    EXPECT_THROW(value(), LibXmlError);
}

TEST_F(AConfigFile, TakesANewTextAndTellsItAtOnceWhileTheFileStays) {
    const std::string before = content();
    XmlFile file(path);
    file.setTextAt(kLevel, "debug");
    EXPECT_EQ(file.textAt(kLevel), "debug");
    EXPECT_EQ(content(), before);
    file.setTextAt(kLevel, "");
    EXPECT_EQ(file.textAt(kLevel), "");
}

TEST_F(AConfigFile, BringsEveryTextBackThatXmlCanHold) {
    for (const char* text : {"<b>&amp;", "]]>", "\"'", " a \n b\t", "\r\n", "Caf\xC3\xA9", "<![CDATA[", "<!--", "&#1;",
                             "</LogLevel>", ""}) {
        ASSERT_TRUE(save(text)) << text;
        EXPECT_EQ(value(), text);
    }
}

TEST_F(AConfigFile, RefusesATextThatXmlCannotHoldAndStaysAsItWas) {
    XmlFile file(path);
    for (const char* text : {"\1", "\x1B[2J", "\xFF", "Caf\xE9", "\xED\xA0\x80"}) {
        EXPECT_THROW(file.setTextAt(kLevel, text), LibXmlError) << text;
        EXPECT_EQ(file.textAt(kLevel), "information");
    }
    EXPECT_THROW(file.setTextAt(kLevel, nullptr), LibXmlError);
    EXPECT_THROW(file.setTextAt(kLevel, std::string(kMaxConfigFileBytes, 'x').c_str()), LibXmlError);
    EXPECT_EQ(file.textAt(kLevel), "information");
}

TEST_F(AConfigFile, ThrowsWhenTheElementToSetIsNotThereOnceAndStaysAsItWas) {
    write("<HVConfiguration><A n='1'>x</A><B/><B/></HVConfiguration>");
    const std::string before = content();
    XmlFile file(path);
    for (const char* xpath : {"/HVConfiguration/LogLevel", "/HVConfiguration/B", "/HVConfiguration/A/@n",
                              "/HVConfiguration", "/HVConfiguration/A/text()"}) {
        EXPECT_THROW(file.setTextAt(xpath, "y"), LibXmlError) << xpath;
    }
    ASSERT_TRUE(file.saveTo(path.c_str()));
    EXPECT_EQ(content(), before);
}

struct Change {
    const char* before;
    const char* after;
};

/// The element that is set is always named LogLevel; its new text is "new".
TEST_F(AConfigFile, KeepsEveryByteThatWasNotSet) {
    for (const auto& [before, after] : {
             Change{"<LogLevel>old</LogLevel>", "<LogLevel>new</LogLevel>"},
             Change{"<LogLevel/>", "<LogLevel>new</LogLevel>"},
             Change{"<LogLevel a = '/>'\n/>", "<LogLevel a = '/>'\n>new</LogLevel>"},
             Change{"<LogLevel a='>' >o<!--</LogLevel>--><![CDATA[</LogLevel>]]></LogLevel >",
                    "<LogLevel a='>' >new</LogLevel >"},
             Change{"<h:LogLevel xmlns:h='u'/>", "<h:LogLevel xmlns:h='u'>new</h:LogLevel>"},
             Change{"<LogLevel xmlns='u'/>", "<LogLevel xmlns='u'>new</LogLevel>"},
             Change{"<E></E><F/><G >&quot;&#x41;</G >\r\n<LogLevel></LogLevel>",
                    "<E></E><F/><G >&quot;&#x41;</G >\r\n<LogLevel>new</LogLevel>"},
             Change{"<!-- Caf\xC3\xA9 --><?x y?><LogLevel>old</LogLevel>\t",
                    "<!-- Caf\xC3\xA9 --><?x y?><LogLevel>new</LogLevel>\t"},
         }) {
        const std::string head =
            "\xEF\xBB\xBF<?xml version='1.0'  standalone='yes' ?>\r\n\r\n<!-- a -->\n<R  b='1'\ta=\"2\">";
        const std::string tail = "<![CDATA[x]]></R >\n\n<!-- end -->";
        write(std::string(head).append(before).append(tail));
        XmlFile file(path);
        file.setTextAt("//*[local-name()='LogLevel']", "new");
        ASSERT_TRUE(file.saveTo(path.c_str()));
        EXPECT_EQ(content(), std::string(head).append(after).append(tail));
    }
}

TEST_F(AConfigFile, TakesANewTextWhereTheNextTagFollowsAtOnce) {
    writeInside("<LogLevel>information</LogLevel>");
    EXPECT_TRUE(save("debug"));
    EXPECT_EQ(content(), "<HVConfiguration><LogLevel>debug</LogLevel></HVConfiguration>\n");
    writeInside("<LogLevel><!-- </b --></LogLevel ><!-- </c> --><Hotfixes/>");
    EXPECT_TRUE(save("debug"));
    EXPECT_EQ(content(), "<HVConfiguration><LogLevel>debug</LogLevel ><!-- </c> --><Hotfixes/></HVConfiguration>\n");
}

TEST_F(AConfigFile, KeepsEveryByteWhenTheNewTextIsTheOldOne) {
    writeInside("<LogLevel><!-- why -->&#100;ebug</LogLevel>");
    const std::string before = content();
    ASSERT_TRUE(save("debug"));
    EXPECT_EQ(content(), before);
}

TEST_F(AConfigFile, OfAnotherEncodingIsReadAndNotChanged) {
    write("<?xml version='1.0' encoding='ISO-8859-1'?><HVConfiguration><LogLevel>Caf\xE9</LogLevel></HVConfiguration>");
    const std::string before = content();
    EXPECT_EQ(value(), "Caf\xC3\xA9");
    XmlFile file(path);
    EXPECT_EQ(errorOf([&] { file.setTextAt(kLevel, "x"); }), path + ": only UTF-8 can be changed, not ISO-8859-1");
    ASSERT_TRUE(file.saveTo(path.c_str()));
    EXPECT_EQ(content(), before);
}

TEST_F(AConfigFile, IsWorkedOnFromTwoThreadsAtOnce) {
    const auto work = [this](const std::string& name) {
        const std::string own = directory + "/" + name;
        std::filesystem::copy_file(path, own);
        for (int round = 0; round < 50; ++round) {
            XmlFile file(own);
            EXPECT_THROW(file.textAt("nosuch(/)"), LibXmlError);
            file.setTextAt(kLevel, (name + std::to_string(round)).c_str());
            EXPECT_TRUE(file.saveTo(own.c_str()));
            EXPECT_EQ(XmlFile(own).textAt(kLevel), name + std::to_string(round));
        }
    };
    std::thread other(work, "one");
    work("two");
    other.join();
}

TEST_F(AConfigFile, IsReadByAnotherProgramAsItWasSaved) {
    ASSERT_TRUE(save("<debug> & more"));
    testing_support::ChildOptions options;
    options.arguments = {"--noout", "--xpath", std::string("string(") + kLevel + ")", path};
    options.outputFile = root.file("out");
    testing_support::ChildProcess xmllint("xmllint", options);
    EXPECT_EQ(xmllint.waitUntil(testing_support::patience()), 0);
    EXPECT_EQ(xmllint.output(), "<debug> & more\n");
}

} // namespace
