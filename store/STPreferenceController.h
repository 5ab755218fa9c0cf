// The current preferences.
#pragma once

#include "hub/HubIds.h"
#include "hub/STPreferences.h"
#include "store/DBSettings.h"

#include <boost/thread/mutex.hpp>

#include <atomic>
#include <list>
#include <string>
#include <vector>

namespace Sentrel {

/// The one place where the current preferences live in memory. Filled from the settings file and the hub's
/// configuration file when it is first asked for. A change goes to the file first, and to memory when that succeeded,
/// unless the operation says otherwise. Only signalPrefChange signals: whoever makes a whole change calls it once, at
/// the end.
///
/// Setters return an STError as an int and never throw: 180000 also when the value is the current one (the file is then
/// not touched), 180003 when the file cannot be opened or refuses the write, 180006 and 180001 when an exception was
/// caught.
/// Threads: any. A scalar is read and written in one plain access. Of a list that is being replaced a reader may see
/// nothing or a part; two replacements at a time may leave rows of both, in the file and in memory. Two changes of one
/// scalar at a time may leave the file with the one and memory with the other until the next start.
/// Owner: a singleton that ends with the process.
class STPreferenceController {
public:
    /// Gives the controller, loading it on the first call.
    /// @throws HVB::HVBException with code 3 when the hub's configuration file cannot be read; the next call tries
    /// again.
    static STPreferenceController* getInstance();
    static void releaseInstance();
    virtual ~STPreferenceController();
    STPreferenceController(const STPreferenceController&) = delete;
    STPreferenceController& operator=(const STPreferenceController&) = delete;

    // The scalars.
    int setEnableSentrel(bool value);
    int setLogGREENSitesStatus(bool value);
    int setLogAllowSiteStatus(bool value);
    int setBlockPhishingStatus(bool value);
    int setRPXUnReachableAction(bool value);
    int setPrivateIpChecksum(unsigned char value);
    int setAllowBlockListChecksum(unsigned char value);
    int setCategoryBlockListChecksum(unsigned char value);
    int setEnableCategoryBlocking(bool value);
    int setAllowOverBlockPrecedenceStatus(bool value);
    int setSTUnVerifiedAction(int value);
    int setEnableSafeSearch(bool value);
    /// The site actions: 1 allow, 2 warn, 3 block, not checked here. Memory takes the value also when the file refuses
    /// it.
    int setRedSiteAction(int value);
    int setYellowSiteAction(int value);
    int setUnratedSiteAction(int value);

    bool getEnableSentrel();
    bool getBlockPhishingStatus();
    bool getRPXUnReachableAction();
    bool getEnableSafeSearch();
    int getSTUnVerifiedAction();
    int getRedSiteAction();
    int getYellowSiteAction();
    int getUnratedSiteAction();
    bool getEnableCategoryBlocking();
    bool getAllowOverBlockPrecedenceStatus();
    bool getDebugLoggingStatus();
    unsigned char getPrivateIpChecksum() const { return m_privateIpChecksum; }
    unsigned char getAllowBlockListChecksum() const { return m_allowBlockListChecksum; }
    unsigned char getCategoryBlockListChecksum() const { return m_categoryBlockListChecksum; }

    // The lists. Each is replaced whole: the table is emptied, written row by row and read back, and what was read is
    // the new list. Rows that cannot be written are missing then; that is no error.

    /// From policy. @p actions holds one decimal digit a category; 0 drops it. With @p enabled 0 the list stays.
    int setCategoryBlockDetails(int enabled, int count, std::vector<wchar_t>& actions, std::vector<std::wstring>& names,
                                int nonCategoryBlocked);
    /// From a client. Does nothing while category blocking is off. A category with action 0 is not stored.
    int setCategoryBlockDetails(std::map<std::string, int>& categories);
    /// Copies the list. Always 180000.
    int getCategoryBlockDetails(std::map<std::string, int>& out);

    /// From policy. @p precedence: whether allow entries win.
    int setAllowBlockDetails(int precedence, std::vector<std::wstring>& urls, std::vector<int>& actions);
    /// From a client, which cannot change the precedence.
    int setAllowBlockDetails(AllowBlockDetails& details);
    /// Copies the list, the winning kind first. Always 180000.
    int getAllowBlockDetails(AllowBlockDetails& out);

    /// From policy. Ranges with a ':' are left out. They are not held in memory.
    int setPrivateIPRange(std::list<std::string> ranges);

    /// Switches the module's debug logging. A worker thread, with the caller's signal mask, rewrites the hub's
    /// configuration file, sets what getDebugLoggingStatus gives, signals ST_DEBUG_LOGGING and has the hub reload;
    /// what becomes of that shows in the trace log alone. While a change is under way another one is dropped. When no
    /// thread can be started, the change never ends, and each later one is dropped until the process starts anew.
    /// @return whether the settings file has a note of it; false also for a change that was dropped. Never throws.
    bool setDebugLoggingStatus(bool status);
    /// Whether there is a worker of such a change, also one that was started and has not begun yet. Nobody waits for
    /// it, so that the process may end before it does. Requires that no change is being asked for meanwhile.
    static bool isChangingDebugLogging();

    /// Stores the proxy that the hub published, field by field; a failure leaves the fields before it stored. An empty
    /// text cannot be stored and is such a failure. The texts are stored as they are, the password too, and traced.
    /// Threads: one at a time, as the hub's events come.
    int setRpxProxySettings(const char* host, const char* user, const char* password, int port, int type, int httpAuth);

    /// Tells the hub's other modules what changed.
    /// @throws HVB::HVBException of the broker; the change itself stays.
    void signalPrefChange(STPrefType type);

private:
    STPreferenceController();

    void loadPreferenceData();
    void loadPrefenceDataFromDB();
    void loadPrefenceDataFromConfigFile();
    void loadScalars(CVXDBSettings& settings);
    void loadLists(CVXDBSettings& settings);

    void replaceAllowBlockDetails(AllowBlockDetails details);
    void replaceCategoryBlockDetails(CategoryBlockDetails details);
    void takeCategoryRows(const CVXDBSettings::Rows& rows);
    void emptyCategories(CVXDBSettings& settings);
    void readBackCategories(CVXDBSettings& settings, int form);
    bool readBackUrls(CVXDBSettings& settings);
    static void storeUncategorised(CVXDBSettings& settings, int blocked);

    static void* updateHVConfigAndReloadHVB(void* status); // the worker's entry point; the pointer is 0 or 1
    static void changeDebugLogging(bool status);

    template <class Value>
    struct Scalar; // what one setter is made of
    template <class Value>
    int setScalar(const Scalar<Value>& scalar, Value value);

    // Plain, single access.
    std::atomic<bool> m_bEnabled{true};
    std::atomic<bool> m_bLogGreenSites{false};
    std::atomic<bool> m_bLogAllowSites{false};
    std::atomic<bool> m_bBlockPhishing{true};
    std::atomic<bool> m_bRpxUnReachableAction{false};
    std::atomic<bool> m_bSafeSearch{false};
    std::atomic<int> m_redSiteAction{3};
    std::atomic<int> m_yellowSiteAction{2};
    std::atomic<int> m_unratedSiteAction{1};
    std::atomic<bool> m_bCategoryBlocking{true};
    std::atomic<bool> m_bAllowOverBlock{false};
    std::atomic<bool> m_bDebugLogging{false};
    std::atomic<int> m_unverifiedAction{1};
    std::atomic<unsigned char> m_privateIpChecksum{'0'};
    std::atomic<unsigned char> m_allowBlockListChecksum{'0'};
    std::atomic<unsigned char> m_categoryBlockListChecksum{'0'};

    // What was last stored; nothing loads it. The hub's events are the only ones to touch it.
    std::string m_proxyHost{"0"};
    std::string m_proxyUser{"0"};
    std::string m_proxyPassword{"0"};
    int m_proxyPort = 80;
    int m_proxyType = 0;
    int m_httpAuth = 0;

    // Guarded by m_listMutex, which is held for one access to the container and never while the file is used.
    AllowBlockDetails m_allowBlockDetails;
    CategoryBlockDetails m_categoryBlockDetails;
    boost::mutex m_listMutex;

    // Held from the reading back of a list until it is the list in memory.
    boost::mutex m_readBackMutex;

    static STPreferenceController* m_pSelf;
    static boost::mutex m_instanceMutex;
};

/// The one controller. Asked for anew with each access, since its first load may fail and be tried again.
inline STPreferenceController& preferences() {
    return *STPreferenceController::getInstance();
}

/// A copy of @p text without the characters of @p characters at its ends.
std::string trim(const std::string& text, const std::string& characters);

} // namespace Sentrel
