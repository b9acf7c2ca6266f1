// Decorators that put a fault plan in front of the platform's services.
//
// Each wraps an inner service, writes every call down in the plan under the name that allOperations() lists, and lets the plan
// spoil it. What the services hand out (file handles, queues, tasks) is wrapped in turn. The argument texts are short: file names
// for the file manager, lengths for a file handle, labels for queues. Only calls from outside count: what one service asks of
// another while it serves a call passes unseen.
#pragma once

#include <memory>

#include "platform/Process.h"
#include "support/FaultPlan.h"

namespace test {

std::shared_ptr<platform::FileManager> faulty(std::shared_ptr<platform::FileManager> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::JSONSerialization> faulty(std::shared_ptr<platform::JSONSerialization> inner,
                                                    std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::DataService> faulty(std::shared_ptr<platform::DataService> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::UserDefaults> faulty(std::shared_ptr<platform::UserDefaults> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::DispatchQueues> faulty(std::shared_ptr<platform::DispatchQueues> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::URLSession> faulty(std::shared_ptr<platform::URLSession> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::BackgroundURLSessions> faulty(std::shared_ptr<platform::BackgroundURLSessions> inner,
                                                        std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::BrowserOpener> faulty(std::shared_ptr<platform::BrowserOpener> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::Clock> faulty(std::shared_ptr<platform::Clock> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::SecureRandom> faulty(std::shared_ptr<platform::SecureRandom> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::Digest> faulty(std::shared_ptr<platform::Digest> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::Bundle> faulty(std::shared_ptr<platform::Bundle> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::Application> faulty(std::shared_ptr<platform::Application> inner, std::shared_ptr<FaultPlan> plan);
std::shared_ptr<platform::SystemLog> faulty(std::shared_ptr<platform::SystemLog> inner, std::shared_ptr<FaultPlan> plan);

/// While one is there, this thread's calls are neither written down nor spoilt: for what a test itself does to set the stage.
class Unseen {
 public:
  Unseen();
  ~Unseen();
  Unseen(const Unseen&) = delete;
  Unseen& operator=(const Unseen&) = delete;

 private:
  int depth_;
};

/// Wraps every service of a record that is there. Before the record is put in force.
void makeFaulty(platform::Process& process, const std::shared_ptr<FaultPlan>& plan);

}  // namespace test
