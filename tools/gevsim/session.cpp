// Cameras side by side, and the words of the program that go beyond those of a camera.
#include "tools/gevsim/session.h"

#include "tools/gevsim/script.h"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <sstream>

namespace gevsim {

namespace {

/// A line, taken apart as far as the program has a say in it.
struct Line {
    enum class Word { camera, traceOn, traceOff, quit };
    Word word = Word::camera;
    std::size_t camera = 0; ///< from 1; 0: all of them
    std::string rest;       ///< for the cameras
};

Line parseLine(const std::string& text, std::size_t cameras)
{
    std::istringstream stream(text.substr(0, text.find('#')));
    Line line;
    std::string first;
    stream >> first;
    if (!first.empty() && first[0] == '@') {
        std::istringstream number(first.substr(1));
        if (!(number >> line.camera) || !number.eof() || line.camera == 0 || line.camera > cameras)
            throw ScriptError("'" + first + "' is none of the cameras @1 to @" + std::to_string(cameras));
        std::getline(stream, line.rest);
    } else if (first == "trace") {
        std::string value, more;
        stream >> value >> more;
        if ((value != "on" && value != "off") || !more.empty())
            throw ScriptError("trace is on or off");
        line.word = value == "on" ? Line::Word::traceOn : Line::Word::traceOff;
        return line;
    } else if (first == "quit" || first == "exit") {
        line.word = Line::Word::quit;
        return line;
    } else {
        line.rest = text;
    }
    checkScriptLine(line.rest);
    return line;
}

std::string timeOfDay()
{
    return boost::posix_time::to_simple_string(boost::posix_time::microsec_clock::local_time().time_of_day());
}

} // namespace

Session::Session(const Options& options)
{
    for (const std::string& line : options.commands)
        parseLine(line, options.count);
    for (unsigned i = 0; i < options.count; ++i) {
        Config config = options.camera;
        config.endpoint.ip += i;
        config.mac += config.mac ? i : 0;
        cameras_.push_back(std::make_unique<Camera>(config));
    }
    setTrace(options.trace);
    for (const std::string& line : options.commands) {
        const std::string answer = execute(line);
        if (!answer.empty())
            printLine(answer);
    }
}

void Session::setTrace(bool on)
{
    for (const auto& camera : cameras_) {
        if (!on) {
            camera->setTrace({});
            continue;
        }
        const std::string name = cameras_.size() > 1 ? " " + camera->endpoint().text() : std::string();
        camera->setTrace([name](const std::string& text) { printLine(timeOfDay() + name + " " + text); });
    }
}

std::string Session::execute(const std::string& text)
{
    const Line line = parseLine(text, cameras_.size());
    if (line.word == Line::Word::quit) {
        ended_ = true;
        return {};
    }
    if (line.word != Line::Word::camera) {
        setTrace(line.word == Line::Word::traceOn);
        return {};
    }
    // One answer is enough where all cameras give the same.
    std::string answers, last;
    bool same = true;
    for (std::size_t i = 0; i < cameras_.size(); ++i) {
        if (line.camera != 0 && line.camera != i + 1)
            continue;
        const std::string answer = runScriptLine(*cameras_[i], line.rest);
        same = same && (last.empty() || answer == last);
        last = answer;
        if (!answer.empty())
            answers += (answers.empty() ? "" : "\n") + cameras_[i]->endpoint().text() + ": " + answer;
    }
    return same ? last : answers;
}

void printLine(const std::string& text)
{
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

} // namespace gevsim
