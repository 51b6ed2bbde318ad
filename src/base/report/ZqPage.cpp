#include "ZqPage.h"

#include "ZqFigure.h"

namespace {

constexpr const char* PAGE_STYLE =
    ":root{color-scheme:light dark}\n"
    "*{box-sizing:border-box}\n"
    "body{margin:0;background:#f3f5f8;color:#1b2230;font-family:system-ui,sans-serif;line-height:1.45}\n"
    "main{max-width:1040px;margin:0 auto;padding:28px 20px 40px}\n"
    "header{margin-bottom:20px}\n"
    "h1{margin:0;font-size:28px;line-height:1.2;overflow-wrap:anywhere}\n"
    "h2{margin:0 0 10px;font-size:17px}\n"
    "header p,.note{margin:6px 0 0;color:#566073}\n"
    ".failure{margin:0 0 20px;padding:12px 16px;border-left:4px solid #dc2626;border-radius:6px;"
    "background:#fdecec;color:#7f1d1d;overflow-wrap:anywhere}\n"
    ".card,.tiles>div{background:#fff;border:1px solid #e3e7ee;border-radius:12px}\n"
    ".card{margin-bottom:16px;padding:18px 20px}\n"
    ".tiles{display:grid;grid-template-columns:repeat(4,1fr);gap:12px;margin:0 0 16px}\n"
    ".tiles>div{padding:14px 16px}\n"
    ".tiles dt{font-size:13px;color:#566073}\n"
    ".tiles dd{margin:2px 0 0;font-size:23px;font-weight:600;line-height:1.25}\n"
    ".tiles small{display:block;margin-top:2px;font-size:13px;font-weight:400;color:#566073}\n"
    ".keys{display:flex;flex-wrap:wrap;gap:4px 18px;margin:0 0 6px;padding:0;list-style:none;font-size:14px;"
    "color:#566073}\n"
    ".swatch{display:inline-block;width:18px;margin-right:7px;vertical-align:middle}\n"
    ".dots{width:9px;height:9px;background:currentColor}\n"
    ".stroke{height:3px;background:currentColor}\n"
    ".block{height:12px;background:currentColor;opacity:.3}\n"
    ".dashes{height:0;border-top:3px dashed currentColor}\n"
    "svg{display:block;width:100%;height:auto;margin-bottom:-20px}\n"
    "table{width:100%;border-collapse:collapse;font-size:14px}\n"
    "th,td{padding:6px 12px 6px 0;border-top:1px solid #e6e9ef;text-align:left;vertical-align:top;"
    "overflow-wrap:anywhere}\n"
    "th{font-weight:400;color:#566073}\n"
    ".rows th{width:40%}\n"
    ".numbers{table-layout:fixed;margin-top:8px}\n"
    ".numbers th:first-child{width:38%}\n"
    ".numbers td,.numbers th+th{text-align:right;font-variant-numeric:tabular-nums}\n"
    ".numbers td:last-child,.numbers th:last-child{padding-right:0}\n"
    ".numbers .dim{color:#8a94a6}\n"
    "@media (max-width:640px){\n"
    "main{padding:16px 10px 24px}\n"
    ".card{padding:14px 12px}\n"
    ".tiles{grid-template-columns:1fr 1fr;gap:8px}\n"
    ".tiles dd{font-size:20px}\n"
    "svg{margin-bottom:0}\n"
    ".numbers tr{display:flex;flex-wrap:wrap;border-top:1px solid #e6e9ef;padding:4px 0}\n"
    ".numbers td,.numbers th{flex:1;border:0;padding:2px 0 2px 4px}\n"
    ".numbers th:first-child{flex:0 0 100%;padding-left:0}\n"
    ".numbers tr:first-child th:first-child{display:none}\n"
    "text{font-size:25px}\n"
    ".line,.mark{stroke-width:3.5px}\n"
    "}\n"
    "@media (prefers-color-scheme:dark){\n"
    "body{background:#0f131a;color:#e8ecf4}\n"
    ".card,.tiles>div{background:#171c26;border-color:#29303d}\n"
    "header p,.note,.tiles dt,.tiles small,.keys,th{color:#9aa5b8}\n"
    "th,td,.numbers tr{border-top-color:#29303d}\n"
    ".numbers .dim{color:#6f7a8d}\n"
    ".failure{background:#3a1719;color:#fecaca}\n"
    "}\n";

} // namespace

SxString ZqPage::document(const SxString& title, const SxString& body) {
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n<title>" +
           title + "</title>\n<style>\n" + ZqFigure::styleSheet() + PAGE_STYLE +
           "</style>\n</head>\n<body>\n<main>\n" + body + "</main>\n</body>\n</html>\n";
}

SxString ZqPage::tile(const char* name, const SxString& value, const SxString& more) {
    SxString html = SxString("<div><dt>") + name + "</dt><dd>" + ZqFigure::escape(value);
    if (!more.isEmpty()) html += "<small>" + ZqFigure::escape(more) + "</small>";
    return html + "</dd></div>\n";
}
