#include "report_files.h"

#include <cstdio>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace artifact_detect {
namespace {

std::string csv_field(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string html_text(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string base64(const std::vector<unsigned char>& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t v = 0;
    for (std::size_t k = 0; k < 3; ++k) v = (v << 8) | (k < n ? bytes[i + k] : 0);
    for (std::size_t k = 0; k < 4; ++k) out += k <= n ? kDigits[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

std::string tag_list(const Result& result) {
  std::string tags;
  for (const Artifact& a : result.artifacts) tags += (tags.empty() ? "" : " ") + a.tag;
  return tags;
}

// Phone first: the sheet's columns follow the screen's width.
const char kStyle[] =
    "body{font-family:sans-serif;margin:0;background:#f4f4f4;color:#222}"
    "header{position:sticky;top:0;background:#fff;padding:8px 12px;box-shadow:0 1px 4px #0003}"
    "h1{font-size:1.2em;margin:0 0 4px}nav{display:flex;flex-wrap:wrap;gap:6px}"
    "button{font-size:1em;padding:6px 10px;border:1px solid #888;border-radius:16px;"
    "background:#fff}button.on{background:#225;color:#fff}"
    "main{display:grid;grid-template-columns:repeat(auto-fill,minmax(150px,1fr));gap:8px;"
    "padding:8px}figure{margin:0;background:#fff;border-radius:6px;overflow:hidden}"
    "figure img,.none{width:100%;aspect-ratio:1;object-fit:contain;background:#ddd;display:block}"
    "figcaption{padding:4px 6px;font-size:.85em;overflow-wrap:anywhere}"
    ".tag{display:inline-block;background:#fde2b4;border-radius:4px;padding:0 4px;margin:2px 2px 0 "
    "0}"
    ".clean{background:#cdebc6}.failed{background:#f6c0c0}";

// Buttons for the filters that some figure carries, counted when the page loads (the page is
// written as results come, so its end is where the counts are known). A filter can be linked
// to: page.html#Flare opens with it.
const char kScript[] =
    "var labels={all:'All',clean:'No artifacts',failed:'Failed'},counts={},"
    "figs=document.querySelectorAll('main figure'),nav=document.querySelector('nav');"
    "figs.forEach(function(f){f.dataset.tags.split(' ').forEach(function(t){"
    "counts[t]=(counts[t]||0)+1})});counts.all=figs.length;"
    "document.querySelector('h1').textContent+=': '+figs.length+' images';"
    "order.forEach(function(t){if(!counts[t])return;var b=document.createElement('button');"
    "b.dataset.tag=t;b.textContent=(labels[t]||t)+' '+counts[t];nav.appendChild(b)});"
    "function show(t){if(!counts[t])t='all';nav.querySelectorAll('button').forEach(function(b){"
    "b.classList.toggle('on',b.dataset.tag===t)});figs.forEach(function(f){"
    "f.hidden=t!=='all'&&f.dataset.tags.split(' ').indexOf(t)<0})}"
    "nav.addEventListener('click',function(e){var t=e.target.dataset.tag;"
    "if(t){show(t);history.replaceState(null,'','#'+t)}});"
    "show(location.hash?decodeURIComponent(location.hash.slice(1)):'all');";

// The words a figure is filtered by: its tags, "clean" or "failed".
std::string filter_words(const Result& r) {
  return !r.ok ? "failed" : r.artifacts.empty() ? "clean" : tag_list(r);
}

std::string figure(const Result& r) {
  const std::string name = r.path.substr(r.path.find_last_of('/') + 1);
  std::string html =
      "<figure data-tags=\"" + html_text(filter_words(r)) + "\">" +
      (r.thumbnail.empty() ? "<div class=\"none\"></div>"
                           : "<img alt=\"" + html_text(name) + "\" src=\"" + r.thumbnail + "\">") +
      "<figcaption title=\"" + html_text(r.path) + "\">" + html_text(name) + "<br>";
  if (!r.ok) html += "<span class=\"tag failed\">" + html_text(r.error) + "</span>";
  if (r.ok && r.artifacts.empty()) html += "<span class=\"tag clean\">no artifacts</span>";
  char tag[160];
  for (const Artifact& a : r.artifacts) {
    std::snprintf(tag, sizeof tag, "<span class=\"tag\">%s %.2f</span>", html_text(a.tag).c_str(),
                  static_cast<double>(a.score));
    html += tag;
  }
  return html + "</figcaption></figure>\n";
}

}  // namespace

CsvReport::CsvReport(Output& out, const ClassNames& names) : out_(out) {
  std::string header = "image,ok,error";
  for (const std::string& name : names) header += "," + name;
  out_.write(header + ",tags\n");
}

void CsvReport::add(const Result& result) {
  std::string row =
      csv_field(result.path) + "," + (result.ok ? "true" : "false") + "," + csv_field(result.error);
  char score[32];
  for (float p : result.scores) {
    std::snprintf(score, sizeof score, ",%.6f", static_cast<double>(p));
    row += result.scored ? score : ",";
  }
  out_.write(row + "," + csv_field(tag_list(result)) + "\n");
}

HtmlReport::HtmlReport(Output& out, const ClassNames& names) : out_(out), names_(names) {
  out_.write(std::string("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                         "<meta name=\"viewport\" content=\"width=device-width, "
                         "initial-scale=1\"><title>artifact-detect</title><style>") +
             kStyle +
             "</style></head>\n<body><header><h1>artifact-detect</h1><nav></nav>"
             "</header>\n<main>\n");
}

void HtmlReport::add(const Result& result) { out_.write(figure(result)); }

void HtmlReport::finish() {
  std::string order = "var order=['all','clean'";
  for (const std::string& name : names_) order += ",'" + name + "'";
  out_.write("</main>\n<script>" + order + ",'failed'];" + kScript + "</script></body></html>\n");
}

std::string thumbnail_url(const cv::Mat& image, int side) {
  const double scale = std::min(1.0, double(side) / std::max(image.cols, image.rows));
  cv::Mat small;
  cv::resize(image, small,
             cv::Size(std::max(1, int(image.cols * scale)), std::max(1, int(image.rows * scale))),
             0, 0, cv::INTER_AREA);
  std::vector<unsigned char> jpeg;
  constexpr int kQuality = 80;
  cv::imencode(".jpg", small, jpeg, {cv::IMWRITE_JPEG_QUALITY, kQuality});
  return "data:image/jpeg;base64," + base64(jpeg);
}

}  // namespace artifact_detect
