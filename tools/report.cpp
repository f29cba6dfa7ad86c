// mp4stbl report: one self-contained HTML file that plots a file's tables.
// The plots' data comes from one walk of each track; every plot holds at
// most kColumns columns (the least and most value of each), so a recording
// of millions of samples gives a report of the same few hundred kilobytes.
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string_view>
#include <vector>

#include "command.h"
#include "report_plots.h"
#include "table.h"

// The page's scripts and styles, embedded at build time (cmake/embed.cmake).
extern const unsigned char kUplotScript[];
extern const std::size_t kUplotScriptSize;
extern const unsigned char kUplotStyle[];
extern const std::size_t kUplotStyleSize;
extern const unsigned char kReportScript[];
extern const std::size_t kReportScriptSize;
extern const unsigned char kReportStyle[];
extern const std::size_t kReportStyleSize;

namespace mp4stbl::cli {

namespace {

using nlohmann::json;

std::string_view asset(const unsigned char* bytes, std::size_t size) {
  return {reinterpret_cast<const char*>(bytes), size};
}

std::string escaped(const std::string& text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '&': html += "&amp;"; break;
      case '<': html += "&lt;"; break;
      case '>': html += "&gt;"; break;
      case '"': html += "&quot;"; break;
      default: html += c;
    }
  }
  return html;
}

// JSON inside a script element: no "<" may end the element early.
std::string scriptJson(const json& value) {
  const std::string text = value.dump(-1, ' ', false, json::error_handler_t::replace);
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    if (c == '<') {
      safe += "\\u003c";
    } else {
      safe += c;
    }
  }
  return safe;
}

// "0.846", "25": three decimals at most.
std::string shortNumber(double value) {
  std::string text = format("%.3f", value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

std::string cell(const json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return escaped(value.get<std::string>());
  if (value.is_number_float()) return shortNumber(value.get<double>());
  return escaped(value.dump());
}

// A table cell that shows a number rounded keeps it whole in data-value.
std::string trackCell(const json& track, const char* field) {
  const json value = track.value(field, json());
  return "<td data-track=\"" + track["id"].dump() + "\" data-field=\"" + field +
         "\" data-value=\"" + escaped(value.dump()) + "\">" + cell(value) + "</td>";
}

// The overview as info prints it, every number of a track in a cell that
// names the track and the field (data-track, data-field) for those who read
// the page by machine.
std::string overview(const json& info) {
  std::string html = "<h2>Overview</h2>\n<p id=\"file-facts\">";
  html += "<span data-field=\"bytes\">" + cell(info["bytes"]) + "</span> bytes; brand ";
  html += "<span data-field=\"majorBrand\">" + cell(info["majorBrand"]) + "</span>, compatible:";
  for (const json& brand : info["compatibleBrands"]) html += " " + cell(brand);
  html += "; fast start: <span data-field=\"fastStart\">" + cell(info["fastStart"]) + "</span>";
  html += "; fragmented: <span data-field=\"fragmented\">" + cell(info["fragmented"]) +
          "</span></p>\n";
  // Two tables, as info prints them: one would be wider than the page.
  static const std::vector<const char*> kTables[] = {
      {"id", "handler", "entry", "timescale", "samples", "duration", "seconds", "bytes", "bitrate",
       "keyFrames", "chunks"},
      {"id", "entry", "width", "height", "frameRate", "sampleRate", "channels"}};
  for (const std::vector<const char*>& fields : kTables) {
    html += "<div class=\"table\"><table><tr>";
    for (const char* field : fields) html += std::string("<th>") + field + "</th>";
    html += "</tr>\n";
    for (const json& track : info["tracks"]) {
      html += "<tr>";
      for (const char* field : fields) html += trackCell(track, field);
      html += "</tr>\n";
    }
    html += "</table></div>\n";
  }
  for (const json& reason : info["unreadable"]) {
    html += "<p class=\"unreadable\">not shown: " + cell(reason) + "</p>\n";
  }
  return html;
}

std::string page(const std::string& title, const json& info, const json& plots) {
  std::string html = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>";
  html += escaped(title) + "</title>\n<style>";
  html += asset(kUplotStyle, kUplotStyleSize);
  html += asset(kReportStyle, kReportStyleSize);
  html += "</style>\n</head><body>\n<h1>" + escaped(title) + "</h1>\n";
  html += overview(info);
  html += "<div id=\"plots\"></div>\n<pre id=\"summary\"></pre>\n";
  html += "<script type=\"application/json\" id=\"report-data\">" + scriptJson(plots) +
          "</script>\n<script>";
  html += asset(kUplotScript, kUplotScriptSize);
  html += "</script>\n<script>";
  html += asset(kReportScript, kReportScriptSize);
  html += "</script>\n</body></html>\n";
  return html;
}

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.close();
  return static_cast<bool>(out);
}

}  // namespace

int visualReport(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  std::vector<const Track*> chosen;
  if (!options.track.empty()) {
    const Track* track = findTrack(options, *opened);
    if (track == nullptr) return kFailure;
    chosen.push_back(track);
  } else {
    for (const Track& track : opened->tracks) chosen.push_back(&track);
  }
  json info = infoDocument(options, *opened);
  std::vector<WalkedTrack> walked;
  for (const Track* track : chosen) {
    Result<WalkedTrack> walk = walkTrack(opened->file, *track);
    if (!walk.ok()) {
      info["unreadable"].push_back(walk.message());
      continue;
    }
    walked.push_back(std::move(*walk));
  }
  for (const json& reason : info["unreadable"]) report(options, reason.get<std::string>());
  const std::string html = page(options.file, info, plotsOf(opened->file, walked));
  if (!writeFile(options.output, html)) {
    Options about = options;
    about.file = options.output;
    return fail(about, "cannot be written");
  }
  if (options.json) {
    printJson({{"output", options.output}, {"written", true}, {"bytes", html.size()},
               {"tracks", walked.size()}, {"unreadable", info["unreadable"]}});
    return 0;
  }
  std::printf("wrote %s (%zu bytes, %zu tracks)\n", options.output.c_str(), html.size(),
              walked.size());
  return 0;
}

}  // namespace mp4stbl::cli
