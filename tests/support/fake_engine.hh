// A recording stand-in for the media engine, for unit tests.
//
// It defines every engine call, records each call with its argument words and
// a copy of any record passed (the library passes stack copies, gone after the
// call), and answers with scripted results.  Link it ahead of liborlo so that
// its definitions win over libravel's.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ravel.h"

namespace fake_engine {

struct call {
  std::string name;
  std::vector<int64_t> args;    // the argument words, pointers as addresses
  std::vector<uint8_t> record;  // a copy of the record or payload passed, if any
  ravel_jpeg_cb jpeg_cb = nullptr;
  ravel_image_cb image_cb = nullptr;
};

// The scripted answer of a call: gets the call as recorded.
using answer = std::function<int64_t(const call &)>;

// Clears the record and the scripts; frames still held are released.
void reset();
// All calls so far, in order; `name` filters by name.
std::vector<call> calls(const std::string &name = "");
std::vector<std::string> names();
// Answers `name` with `fn` from now on (default: 0, and a handle for ravel_new).
void script(const std::string &name, answer fn);
// Answers `name` with `result` always.
void script_result(const std::string &name, int64_t result);
// Answers `name` with the given results in turn, then with the last one.
void script_sequence(const std::string &name, std::vector<int64_t> results);

// Frames that ravel_put_decode_stream accepted are released through the
// release function at once, unless held; held frames go back on release_held().
void hold_frames(bool hold);
int release_held();
// The handle that ravel_new gave (a fixed address).
ravel_t *handle();

}  // namespace fake_engine
