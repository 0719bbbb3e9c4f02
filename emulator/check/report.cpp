#include "report.h"

#include <ostream>
#include <sstream>

#include "journal.h"

namespace emulator::check {
namespace {

std::string _escaped(std::string_view text) {
    std::string xml;
    for (const char c : valid_utf8(text)) {
        switch (c) {
            case '&':
                xml += "&amp;";
                break;
            case '<':
                xml += "&lt;";
                break;
            case '>':
                xml += "&gt;";
                break;
            case '"':
                xml += "&quot;";
                break;
            default:  // other control characters are not allowed in XML
                xml += static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\t' ? ' ' : c;
        }
    }
    return xml;
}

std::string _seconds(std::chrono::milliseconds time) {
    std::ostringstream text;
    text << static_cast<double>(time.count()) / 1000;
    return text.str();
}

}  // namespace

Report::Report(std::ostream &tap, std::string part, size_t planned) : tap_(tap), part_(std::move(part)) {
    tap_ << "TAP version 13\n1.." << planned << std::endl;
}

void Report::add(const Check &check, const Result &result) {
    results_.emplace_back(check, result);
    failures_ += result.verdict == Verdict::kFailed ? 1 : 0;
    skipped_ += result.verdict == Verdict::kSkipped ? 1 : 0;
    tap_ << (result.verdict == Verdict::kFailed ? "not ok " : "ok ") << results_.size() << " - " << check.name
         << ": \"" << check.sentence << "\" (" << check.page << ')';
    if (result.verdict == Verdict::kSkipped) {
        tap_ << " # SKIP " << result.why;
    }
    tap_ << '\n';
    std::istringstream lines(result.verdict == Verdict::kFailed ? valid_utf8(result.why) : "");
    for (std::string line; std::getline(lines, line);) {
        tap_ << "# " << line << '\n';
    }
    tap_.flush();
}

void Report::write_junit(std::FILE *file) const {
    std::ostringstream xml;
    std::chrono::milliseconds time{0};
    for (const auto &[check, result] : results_) {
        time += result.time;
        xml << "  <testcase classname=\"" << part_ << "\" name=\"" << _escaped(check.name) << "\" time=\""
            << _seconds(result.time) << "\">\n    <properties><property name=\"" << check.page
            << "\" value=\"" << _escaped(check.sentence) << "\"/></properties>\n";
        if (result.verdict != Verdict::kPassed) {
            xml << "    <" << (result.verdict == Verdict::kFailed ? "failure" : "skipped") << " message=\""
                << _escaped(result.why) << "\"/>\n";
        }
        xml << "  </testcase>\n";
    }
    std::ostringstream suite;
    suite << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"extender check " << part_
          << "\" tests=\"" << results_.size() << "\" failures=\"" << failures_ << "\" skipped=\"" << skipped_
          << "\" time=\"" << _seconds(time) << "\">\n";
    const std::string text = suite.str() + xml.str() + "</testsuite>\n";
    if (std::fwrite(text.data(), 1, text.size(), file) != text.size() || std::fflush(file) != 0) {
        throw std::runtime_error("the JUnit file cannot be written");
    }
}

}  // namespace emulator::check
