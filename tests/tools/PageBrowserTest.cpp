#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "PageOf.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using zortest::ProgramResult;
using zortest::ToolOutput;

/// How long a browser may take on a machine that has much else to do.
constexpr const char* DEADLINE_SEC = "150";

/// What a page is asked in the browser, behind its own script. `tell` is called with the answers.
constexpr const char* TELL = R"(
function tell(answers) {
  answers.resources = performance.getEntriesByType('resource').length;
  const text = encodeURIComponent(JSON.stringify(answers));
  document.querySelectorAll('script, section').forEach((each) => each.remove());
  const result = document.createElement('pre');
  result.textContent = 'answers' + ':' + text + ':end';
  document.body.append(result);
}
const copy = document.createElement('canvas').getContext('2d', { willReadFrequently: true });
function image() { // of all that is drawn by now
  const canvas = document.getElementById('canvas');
  copy.canvas.width = canvas.width;
  copy.canvas.height = canvas.height;
  copy.drawImage(canvas, 0, 0);
  return copy.getImageData(0, 0, canvas.width, canvas.height);
}
function pixels(wanted) {
  const { data } = image();
  let count = 0;
  for (let i = 0; i < data.length; i += 4) {
    if (data[i] === wanted[0] && data[i + 1] === wanted[1] && data[i + 2] === wanted[2]) ++count;
  }
  return count;
}
function move(type, x, y, more) {
  const canvas = document.getElementById('canvas');
  const box = canvas.getBoundingClientRect();
  const Kind = type === 'wheel' ? WheelEvent : MouseEvent;
  (type === 'mousedown' || type === 'mousemove' || type === 'wheel' ? canvas : window).dispatchEvent(
    new Kind(type, { clientX: box.left + x, clientY: box.top + y, bubbles: true, cancelable: true,
      view: window, ...more }));
}
)";

std::string Unescaped(const std::string& text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

/// Of what the browser writes the lines that pages cause.
std::string SaidOnTheConsole(const std::string& text)
{
    std::istringstream lines(text);
    std::string said;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("CONSOLE") != std::string::npos) {
            said += line + '\n';
        }
    }
    return said;
}

/// Pages in a browser without a window.
class PageBrowserTest : public testing::Test
{
 protected:
    void Record(const std::vector<std::string>& arguments)
    {
        zortest::RecordInto(path, arguments);
        page = ToolOutput({"page", path});
        data = zortest::DataIn(page);
    }

    /// Opens the page, runs @p script behind its own, and returns what that tells. Nothing may be
    /// said on the browser's console.
    json Ask(const std::string& script, const std::string& size = "1440,900")
    {
        const std::string file = directory.Path("page.html");
        const std::string end = "</body>";
        std::string asking = page;
        asking.insert(asking.rfind(end), "<script>" + (TELL + script) + "</script>");
        zortest::WriteText(file, asking);
        const ProgramResult result = zortest::RunProgram(
            "/usr/bin/timeout",
            {"-k", "5", DEADLINE_SEC, "chromium", "--headless", "--no-sandbox", "--disable-gpu",
             "--disable-dev-shm-usage", "--disable-background-networking", "--no-first-run",
             "--user-data-dir=" + directory.Path("profile"), "--enable-logging=stderr", "--v=0",
             "--force-device-scale-factor=1", "--window-size=" + size, "--dump-dom",
             "file://" + file});
        EXPECT_EQ(result.exitCode, 0)
            << (result.exitCode == 127
                    ? "chromium is not installed: scripts/packages.txt lists what the tests need"
                    : result.err);
        EXPECT_EQ(SaidOnTheConsole(result.err), "");
        const std::size_t from = result.out.find("answers:");
        const std::size_t to = result.out.find(":end", from);
        if (from == std::string::npos || to == std::string::npos) {
            ADD_FAILURE() << "the page tells nothing: " << result.out.substr(0, 2000) << result.err;
            return json::object();
        }
        json answers = json::parse(Unescaped(result.out.substr(from + 8, to - from - 8)));
        EXPECT_EQ(answers.at("resources"), 0) << "something was fetched";
        return answers;
    }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    std::string page;
    json data;
};

TEST_F(PageBrowserTest, HangAndCircleAreDrawnAndFound)
{
    Record({"circle", "Scan", "</script><b>", "St\"o're", "Gu\xC3\xA9ide"});
    const json answers = Ask(R"(
const answers = { title: document.title, facts: document.getElementById('facts').textContent };
answers.stats = zorPage.stats();
answers.red = pixels([179, 19, 27]);
answers.blue = pixels([47, 109, 181]);
answers.path = pixels([224, 134, 0]);
answers.bold = document.querySelectorAll('main b, td b, header b').length;
answers.names = [...document.querySelectorAll('#top td:first-child')].map((cell) => cell.textContent);
answers.rows = document.querySelectorAll('#path tbody tr').length;

answers.hits = zorPage.search('scan 101');
answers.yellow = pixels([255, 226, 61]);
answers.first = zorPage.step(1);
answers.second = zorPage.step(1);
answers.back = zorPage.step(-1);
answers.last = (zorPage.step(-1), zorPage.page.hit);
answers.text = document.getElementById('hits').textContent;
answers.odd = zorPage.search('<\/SCRIPT><B>');
answers.accent = zorPage.search('gu\u00e9ide');
answers.none = zorPage.search('nobody');
answers.noneText = document.getElementById('hits').textContent;

zorPage.search('');
zorPage.fit();
answers.whole = zorPage.range();
move('wheel', 700, 100, { deltaY: -400 });
answers.zoomed = zorPage.range();
move('mousedown', 700, 100, { button: 0 });
move('mousemove', 700, 100, {});
window.dispatchEvent(new MouseEvent('mousemove', { clientX: 500, clientY: 100, view: window }));
move('mouseup', 500, 100, {});
answers.dragged = zorPage.range();
zorPage.showPath();
answers.pathRange = zorPage.range();
const call = zorPage.page.model.data.path.call;
const lane = zorPage.page.model.lanes[zorPage.page.model.calls.lane[call]];
move('mousemove', 720, 34 + lane.top + 10, {});
answers.tooltip = document.getElementById('tooltip').textContent;
tell(answers);
)");
    const json& path = data.at("path");
    EXPECT_THAT(answers.at("title"), HasSubstr("zor-recorded-pr ("));
    EXPECT_THAT(answers.at("facts"), HasSubstr("5 unfinished"));
    EXPECT_THAT(answers.at("facts"), HasSubstr("circle: Scan → St\"o're → Scan"));
    EXPECT_GT(answers.at("stats").at("bars"), 60);
    EXPECT_GT(answers.at("stats").at("arrows"), 40);
    EXPECT_EQ(answers.at("stats").at("circles"), 2);
    EXPECT_GT(answers.at("stats").at("path"), 0);
    EXPECT_GT(answers.at("red"), 500);
    EXPECT_GT(answers.at("blue"), 500);
    EXPECT_GT(answers.at("path"), 500);
    EXPECT_EQ(answers.at("bold"), 0) << "a name was taken for markup";
    EXPECT_THAT(answers.at("names"), testing::Contains("</script><b>"));
    EXPECT_EQ(answers.at("rows"), path.at("path").size());

    EXPECT_EQ(answers.at("hits"), 26); // 13 sends to Scan, 13 handlings
    EXPECT_GT(answers.at("yellow"), 100);
    EXPECT_NE(answers.at("first"), answers.at("second"));
    EXPECT_EQ(answers.at("back"), answers.at("first"));
    EXPECT_EQ(answers.at("last"), 25);
    EXPECT_EQ(answers.at("text"), "26 of 26 hits");
    EXPECT_EQ(answers.at("odd"), 26);
    EXPECT_EQ(answers.at("accent"), 28);
    EXPECT_EQ(answers.at("none"), 0);
    EXPECT_EQ(answers.at("noneText"), "no hit");

    const auto width = [&answers](const char* range) {
        return answers.at(range).at(1).get<double>() - answers.at(range).at(0).get<double>();
    };
    EXPECT_LT(width("zoomed"), width("whole") * 0.8);
    EXPECT_NEAR(width("dragged"), width("zoomed"), width("whole") * 1e-6);
    EXPECT_GT(answers.at("dragged").at(0), answers.at("zoomed").at(0));
    EXPECT_LE(answers.at("pathRange").at(0), path.at("from_ns"));
    EXPECT_GE(answers.at("pathRange").at(1).get<double>(),
              path.at("from_ns").get<double>() + path.at("duration_ns").get<double>());
    EXPECT_THAT(answers.at("tooltip"), HasSubstr("has not finished"));
}

TEST_F(PageBrowserTest, HundredThousandRecordsAreDrawnInAMoment)
{
    Record({"many", "25500"});
    ASSERT_GE(data.at("records"), 100000);
    const json answers = Ask(R"(
const answers = { all: [], close: [], stats: zorPage.stats() };
const measure = (into) => {
  const begun = performance.now();
  zorPage.redraw();
  image();
  into.push(performance.now() - begun);
};
for (let i = 0; i < 5; ++i) measure(answers.all);
const [from, to] = zorPage.range();
const middle = zorPage.page.model.calls.begin[zorPage.page.model.count >> 1];
zorPage.show(middle, middle + (to - from) / 200);
for (let i = 0; i < 5; ++i) measure(answers.close);
answers.closeStats = zorPage.stats();
const begun = performance.now();
answers.hits = zorPage.search('alpha 703');
image();
answers.search = performance.now() - begun;
answers.nodes = document.querySelectorAll('*').length;
tell(answers);
)",
                             "1024,700");
    std::cout << "[ MEASURED ] " << data.at("records") << " records: all redrawn in "
              << answers.at("all") << " ms, a part in " << answers.at("close")
              << " ms, searched in " << answers.at("search") << " ms\n";
    EXPECT_GT(answers.at("stats").at("merged"), 20000);
    EXPECT_LT(answers.at("stats").at("bars"), 20000); // what shares a pixel is drawn once
    EXPECT_GT(answers.at("closeStats").at("bars"), 20);
    EXPECT_LT(answers.at("nodes"), 2000);
    EXPECT_GT(answers.at("hits"), 3000);
}

TEST_F(PageBrowserTest, EmptyRecordingHasAPageToo)
{
    Record({"throw"});
    const json answers = Ask(R"(
zorPage.search('x');
zorPage.fit();
tell({ stats: zorPage.stats(), head: document.getElementById('path-head').textContent });
)");
    EXPECT_EQ(answers.at("stats").at("bars"), 2);
}

} // namespace
