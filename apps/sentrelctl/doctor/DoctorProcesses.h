// What the checks of the processes share: each looks at one thing that a process is, or leaves behind.
#pragma once

#include "apps/sentrelctl/doctor/Doctor.h"

namespace Sentrel::ctl {

/// Throws CannotSee when the bus cannot be reached: another check tells what is wrong with it.
void needTheBus(double timeout);

/// Whether a check finds nothing wrong.
bool isOk(Diagnosis (*check)(double), double timeout);

// Whether the process is on the bus and answers.
Diagnosis hvbd(double timeout);
Diagnosis sentreld(double timeout);

// hvbd's log store: the file, and what is in it.
Diagnosis logStore(double timeout);
Diagnosis logContent(double timeout);

/// What a look into a store of hvbd's came to.
enum StoreProbe : int { StoreIsWhole, StoreIsDamaged, StoreIsLocked, StoreCannotBeOpened };
/// Looks through the SQLite file at @p path as its owner, who the facts say it is. None when this user cannot.
/// @throws CannotSee when it is locked, or takes too long.
std::optional<StoreProbe> probedStore(const std::string& path, const struct stat& facts, double timeout);
/// Whom such a store must belong to: hvbd's user, or the owner of the directory when that is not known.
std::optional<uid_t> ownerOfStores(const std::string& path);

// What users ask for, and what is known of sites.
Diagnosis requestStore(double timeout);
Diagnosis ratingLists(double timeout);

/// Whether an enrolled machine reaches its broker.
Diagnosis broker(double timeout);

/// The process that listens at the event socket, whatever it is doing. None when nobody does.
std::optional<pid_t> listenerOfEvents(double timeout);

// What sentreld leaves behind, and whether one process has all of it.
Diagnosis eventSocket(double timeout);
Diagnosis pidFile(double timeout);
Diagnosis oneDaemon(double timeout);

} // namespace Sentrel::ctl
