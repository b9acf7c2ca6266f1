// The commands, each from its options to its exit status.
#pragma once

#include "cli/Options.h"

namespace cli {

int runEvent(const Options& options);
int runEvents(const Options& options);
int runFlush(const Options& options);
int runQueue(const Options& options);
int runStatus(const Options& options);
int runDoctor(const Options& options);
int runTail(const Options& options);
int runShareSubmit(const Options& options);
int runShareRefresh(const Options& options);
int runShareList(const Options& options);
int runPatch(const Options& options);
int runCookieMatch(const Options& options);
int runUpload(const Options& options);
int runUploads(const Options& options);
int runUploadsCancel(const Options& options);
int runHandleEvents(const Options& options);
int runDemo();

}  // namespace cli
