// Deliberate mistakes, each of which an oracle must find: the proof that the oracles can fail.
//
// A mistake stands in a wrapper around one of the services that the application is given; the product itself is never touched.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "platform/Process.h"
#include "transfer/core/Store.h"

namespace simulation {

enum class Mutation {
  kNone,
  kUnsyncedReplacement,
  kReplacementInPlace,
  kLostWrite,
  kReorderedWrite,
  kDroppedBlock,
  kRepeatedNonce,
  kWrongSignature,
  kThirdPost,
  kLostOutcome,
  kForgottenEnd,
};

struct MutationDescription {
  Mutation mutation;
  std::string_view name;
  std::string_view what;
  std::string_view oracles;  // that may find it, separated by `|`
};

inline constexpr std::array kMutations{
    MutationDescription{Mutation::kUnsyncedReplacement, "unsynced-replacement", "the file manager replaces without a sync",
                        "queue file"},
    MutationDescription{Mutation::kReplacementInPlace, "replacement-in-place",
                        "the file manager writes the new content over the old", "queue file"},
    MutationDescription{Mutation::kLostWrite, "lost-write", "a file handle drops a record now and then", "record lost"},
    MutationDescription{Mutation::kReorderedWrite, "reordered-batch", "the serialiser swaps two records of a batch", "order"},
    MutationDescription{Mutation::kDroppedBlock, "dropped-block", "a queue drops a block now and then", "rest"},
    MutationDescription{Mutation::kRepeatedNonce, "repeated-nonce", "the random source repeats itself", "nonce"},
    MutationDescription{Mutation::kWrongSignature, "wrong-signature", "a keyed digest is wrong now and then", "signature"},
    MutationDescription{Mutation::kThirdPost, "third-post", "the network sends a batch again by itself", "posts"},
    MutationDescription{Mutation::kLostOutcome, "lost-outcome", "the network never tells the outcome of a request",
                        "record lost|rest"},
    MutationDescription{Mutation::kForgottenEnd, "forgotten-end", "the service's store forgets the end of an upload", "upload end"},
};

/// Puts the mistake into the services of an application, beneath what else can go wrong there. `happens` draws whether it is made
/// this time; `gap` lets another block run in the middle of an operation.
void mutate(platform::Process& process, Mutation mutation, const std::function<bool()>& happens, const std::function<void()>& gap);

}  // namespace simulation
