// Tasks on their way from the spool folder into the store, and the applications that they belong to.
#include <algorithm>

#include "platform/SystemLog.h"
#include "transfer/core/ServiceState.h"

namespace transfer {

void Service::Implementation::importSpool() {
  bool isDone = true;
  for (const std::string& name : spool_.names()) {
    if (storeWaits()) return;
    if (!importEntry(name)) isDone = false;
  }
  if (isDone) {
    spoolBackoff_.succeeded();
  } else if (!spoolBackoff_.waits(now())) {
    spoolBackoff_.failed(now());
  }
}

/// False when the entry is to be looked at again later.
bool Service::Implementation::importEntry(const std::string& name) {
  if (const auto known = bySpoolName_.find(name); known != bySpoolName_.end()) return importAgain(tasks_.at(known->second));
  const std::expected<std::string, platform::Error> text = spool_.read(name);
  if (!text) {
    const std::int64_t code = text.error().code();
    if (code == platform::kFileReadNoSuchFile) return true;
    return code == platform::kFileReadNoPermission && setAside(name, text.error().localizedDescription());
  }
  const std::expected<SpoolEntry, std::string> entry = decodeSpoolEntry(*text);
  if (!entry) return setAside(name, entry.error());
  if (const std::optional<std::string> refusal = refusalOf(*entry)) return setAside(name, *refusal);
  return addTask(name, *entry);
}

/// Its file is still there, or there again.
bool Service::Implementation::importAgain(Task& task) {
  if (!leaveSpool(task)) return false;
  settle(SessionKey(task.session));
  return true;
}

bool Service::Implementation::setAside(const std::string& name, std::string_view reason) {
  platform::SystemLog::systemLog().log("The transfer service set " + name + " aside: " + std::string(reason));
  spool_.setAside(name, reason);
  return true;
}

std::optional<std::string> Service::Implementation::refusalOf(const SpoolEntry& entry) const {
  if (std::optional<std::string> refusal = refusalOf(entry.application)) return refusal;
  const Application* const application = knownApplication(entry.application);
  if (!application) return std::nullopt;
  const auto session = sessions_.find({application->stored.id, entry.session});
  if (session == sessions_.end() || !session->second.tasks.contains(entry.task)) return std::nullopt;
  return "the session has a task " + std::to_string(entry.task) + " already";
}

bool Service::Implementation::addTask(const std::string& name, const SpoolEntry& entry) {
  const Application* const application = applicationFor(entry.application, &entry.launchCommand);
  if (!application || storeWaits()) return false;
  TaskStatus status;
  status.identifier = entry.task;
  status.url = entry.url;
  status.file = entry.file;
  const auto ids = store_.addTask(application->stored.id, entry, name, status);
  if (!isStored(ids)) return false;
  const SessionKey key{application->stored.id, entry.session};
  Session& session = sessions_[key];
  session.id = ids->first;
  Task& task = keep(
      {.id = ids->second, .session = ids->first, .entry = entry, .spoolName = name, .hasLeftSpool = false, .status = status}, key);
  step("imported");
  // Its session is about to end, and so is all that is put into it.
  if (session.isInvalidated) end(task, platform::urlError(platform::kURLErrorCancelled));
  const bool hasLeft = leaveSpool(task);
  settle(key);
  return hasLeft;
}

/// Removes the task's file for good; only then the task may begin, so that no file is ever taken for a second task.
bool Service::Implementation::leaveSpool(Task& task) {
  if (!spool_.remove(task.spoolName)) return false;
  if (task.hasLeftSpool) return true;
  step("spool-removed");
  if (storeWaits() || !isStored(store_.saveLeftSpool(task.id))) return false;
  task.hasLeftSpool = true;
  step("left-spool");
  return true;
}

const Service::Implementation::Application* Service::Implementation::knownApplication(const ApplicationIdentity& identity) const {
  for (const auto& [id, application] : applications_) {
    const ApplicationIdentity& known = application.stored.identity;
    if (known.identifier == identity.identifier && known.folder == identity.folder) return &application;
  }
  return nullptr;
}

bool Service::Implementation::isInUse(ApplicationId application) const {
  const auto first = sessions_.lower_bound({application, {}});
  return applications_.at(application).openConnections > 0 || (first != sessions_.end() && first->first.first == application);
}

std::optional<std::string> Service::Implementation::refusalOf(const ApplicationIdentity& identity) const {
  const Application* const known = knownApplication(identity);
  // An application whose folder was made anew has a new token. As long as nothing is kept for the old one, nothing can be taken
  // from it.
  if (!known || known->stored.identity.token == identity.token || !isInUse(known->stored.id)) return std::nullopt;
  return "the application “" + identity.identifier + "” in “" + identity.folder + "” is known with another token";
}

/// Null when the store does not take it now. The identity is one that is not refused; without a command the known one stays.
Service::Implementation::Application* Service::Implementation::applicationFor(const ApplicationIdentity& identity,
                                                                              const std::vector<std::string>* launchCommand) {
  const Application* const known = knownApplication(identity);
  if (known && known->stored.identity == identity) {
    Application& application = applications_.at(known->stored.id);
    if (launchCommand && (application.stored.launchCommand != *launchCommand || application.commandToSave))
      application.commandToSave = *launchCommand;
    saveApplications();
    return &application;
  }
  if (storeWaits()) return nullptr;
  const std::vector<std::string> command = launchCommand ? *launchCommand : std::vector<std::string>();
  const Store::Result<ApplicationId> id = store_.saveApplication(identity, command);
  if (!isStored(id)) return nullptr;
  Application& application = applications_[*id];
  application.stored.id = *id;
  application.stored.identity = identity;
  application.stored.launchCommand = command;
  return &application;
}

void Service::Implementation::saveApplications() {
  for (auto& [id, application] : applications_) {
    if (application.commandToSave && !storeWaits() &&
        isStored(store_.saveApplication(application.stored.identity, *application.commandToSave))) {
      application.stored.launchCommand = *application.commandToSave;
      application.commandToSave.reset();
    }
    if (application.launchesAreUnsaved) saveLaunches(application);
  }
}

}  // namespace transfer
