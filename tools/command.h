// What the subcommands of mp4stbl share: their options, opening a file
// with its tracks, failure messages and JSON output.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/media/track.h>

namespace mp4stbl::cli {

constexpr int kFailure = 1;
constexpr int kUsage = 2;
// The version of the JSON documents' shapes, in each as "schema".
constexpr int kJsonSchema = 1;

struct Options {
  std::string file;
  bool json = false;
  bool verbose = false;
  bool quiet = false;      // no progress and no notes
  bool overwrite = false;  // -y: an existing output is replaced
  std::string entries = "5";
  std::string track;  // --track: an id, "video" or "audio"; empty when not given
  double time = -1;
  uint32_t sample = 0;
  double endTime = -1;
  uint32_t endSample = 0;
  bool after = false;
  // trim, join and remux
  double from = 0;
  double to = 0;
  std::string output;
  bool keyframe = false;
  bool moovLast = false;
  std::vector<std::string> inputs;
  std::string list;  // join: a file naming more clips
  std::string reference;  // recover: a healthy file from the same device
  // record: its inputs (paths, "-" for stdin) and how it lays out the file
  std::string video;
  std::string audio;
  std::string alaw;
  std::string ulaw;
  uint32_t rate = 8000;  // of G.711
  std::string fps;       // N or N/D; empty: the stream's own
  double fragment = 1.0;
  double chunk = 0.5;
  bool plain = false;
  bool moovFirst = false;
  bool sync = false;
};

// Prints "mp4stbl: FILE: what" on stderr, bytes that are not printable
// escaped as \xNN; with --json, failureDocument on stdout instead. fail
// returns kFailure.
int fail(const Options& options, const std::string& what);
void report(const Options& options, const std::string& what);
// A usage error: "mp4stbl: what" and a pointer to --help on stderr, or
// with --json failureDocument with no file on stdout; returns kUsage.
int usageError(bool json, const std::string& what);
// {"error": what, "file": file}, what printable.
nlohmann::json failureDocument(const std::string& what, nlohmann::json file);

// Whether the output names an existing file that -y is needed to replace,
// after a failure message naming it. An output that is one of the inputs
// is left to the command, which refuses it in its own words.
bool refusesOutput(const Options& options);

// A line "note: what" on stdout, unless --quiet.
void note(const Options& options, const std::string& what);

// A file read with its tracks.
struct Opened {
  Mp4File file;
  std::vector<Track> tracks;
  std::vector<std::string> unreadable;  // why each other track cannot be walked, printable
};

// Null after a failure message.
std::unique_ptr<Opened> open(const Options& options);

// Why a file that opened has no movie to read: media data with no moov is
// a recording cut short, which recover may index again.
std::string noMovie(Mp4File& file);

// The track asked for by id or kind (the first readable video or audio
// track); without --track, the first video track, else the first track.
// Null after a failure message.
const Track* findTrack(const Options& options, const Opened& opened);

// What info --json prints of an opened file: its brands and layout, and
// per track the summary of its tables and what it holds.
nlohmann::json infoDocument(const Options& options, Opened& opened);

double seconds(uint64_t units, uint32_t timescale);
// How long a track plays: its edit list's length, else its media's.
double playingSeconds(const Track& track);

// A time asked for past the end of what plays, taken as that end.
struct Clamped {
  std::string option;  // "--time", "--to", ...
  double asked = 0;
  double to = 0;
};
// `asked` seconds of `option` against `end`: clamped when past it.
void clampTime(const char* option, double asked, double end, std::vector<Clamped>* clamps);
// Each clamp as a note, "--to 30.000 s lies past the end; clamped to 10.000 s".
void noteClamps(const Options& options, const std::vector<Clamped>& clamps);
// [{"option": "--to", "asked": 30.0, "to": 10.0}, ...]
nlohmann::json clampsDocument(const std::vector<Clamped>& clamps);
// The child box of `parent` of that type; null when there is none or no parent.
const Atom* childOf(const Atom* parent, const char* type);
// The trak box of a track, by the id in its tkhd; null when none has it.
const Atom* trakOf(Mp4File& file, const Track& track);
// The document on stdout, with "schema" added to it.
void printJson(nlohmann::json document);

int info(const Options& options);
int dump(const Options& options);
int samples(const Options& options);
int seek(const Options& options);
int verify(const Options& options);
int trim(const Options& options);
int join(const Options& options);
int remux(const Options& options);
int record(const Options& options);
int recover(const Options& options);
int visualReport(const Options& options);  // mp4stbl report
int extract(const Options& options);

// Frames a second as N or N/D, at most 1000: whether `text` is one.
bool parseFrameRate(const std::string& text, uint32_t* num, uint32_t* den);

}  // namespace mp4stbl::cli
