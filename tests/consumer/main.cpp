// Runs the README's examples one after the other on the shipped clip:
// extract its video, record the stream into a new file, list that file's
// tracks, then edit the clip. Each must succeed; run.cmake checks what
// they print.
#include <cstdio>
#include <string>

#include <mp4stbl/box/result.h>

int listTracks(const char* path, const char* copy);
int editClip(const char* clip);
mp4stbl::Status recordStream(std::FILE* in, const std::string& path);
int extractVideo(const char* path, std::FILE* out);

namespace {

int fail(const char* what) {
  std::fprintf(stderr, "consumer: %s failed\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: consumer CLIP");
  const char* clip = argv[1];

  std::FILE* stream = std::fopen("clip.h264", "wb");
  if (stream == nullptr || extractVideo(clip, stream) != 0 || std::fclose(stream) != 0) {
    return fail("extractVideo");
  }
  stream = std::fopen("clip.h264", "rb");
  if (stream == nullptr) return fail("reopening the stream");
  const mp4stbl::Status recorded = recordStream(stream, "take1.mp4");
  std::fclose(stream);
  if (!recorded.ok()) {
    std::fprintf(stderr, "%s\n", recorded.message().c_str());
    return fail("recordStream");
  }
  if (listTracks("take1.mp4", "take1_copy.mp4") != 0) return fail("listTracks");
  if (listTracks("/nonexistent/clip.mp4", "never.mp4") == 0) return fail("listTracks on no file");
  if (editClip(clip) != 0) return fail("editClip");
  std::puts("consumer: ok");
  return 0;
}
