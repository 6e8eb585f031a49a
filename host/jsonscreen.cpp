#include "jsonscreen.h"

#include <nlohmann/json.hpp>

#include <climits>
#include <string>
#include <unordered_set>
#include <vector>

namespace JsonScreen {

namespace {

// QJsonDocument::fromJson refuses documents nested deeper than this.
constexpr std::size_t kQtMaxDepth = 1024;

// Reads the text as SAX events, remembering the keys of every open object.
class KeyScanner : public nlohmann::json_sax<nlohmann::json>
{
public:
    bool repeated = false;
    bool tooDeep = false;
    bool failed = false;
    std::size_t errorOffset = 0;

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t &) override { return true; }
    bool string(string_t &) override { return true; }
    bool binary(binary_t &) override { return true; }
    bool start_object(std::size_t) override { return enter(true); }
    bool key(string_t &name) override
    {
        if (!objects.back().insert(name).second)
            repeated = true;
        return true;
    }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t) override { return enter(false); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t position, const std::string &, const nlohmann::detail::exception &) override
    {
        failed = true;
        errorOffset = position;
        return false;
    }

private:
    bool enter(bool object)
    {
        if (++depth > kQtMaxDepth) {
            tooDeep = true;
            return false;
        }
        if (object)
            objects.emplace_back();
        isObject.push_back(object);
        return true;
    }
    bool leave()
    {
        --depth;
        if (isObject.back())
            objects.pop_back();
        isObject.pop_back();
        return true;
    }

    std::size_t depth = 0;
    std::vector<bool> isObject;
    std::vector<std::unordered_set<std::string>> objects;
};

struct Screened
{
    QByteArray text;
    Outcome outcome = Outcome::Unchanged;
    QJsonParseError::ParseError error = QJsonParseError::NoError;
    int offset = 0;
};

Screened screenText(const QByteArray &json)
{
    KeyScanner scanner;
    const char *begin = json.constData();
    const char *end = begin + json.size();
    nlohmann::json::sax_parse(begin, end, &scanner);
    if (scanner.tooDeep)
        return {{}, Outcome::Refused, QJsonParseError::DeepNesting, int(scanner.errorOffset)};
    if (scanner.failed) {
        if (!json.contains('{'))
            return {json, Outcome::Unchanged};
        return {{}, Outcome::Refused, QJsonParseError::IllegalValue, int(qMin<std::size_t>(scanner.errorOffset, INT_MAX))};
    }
    if (!scanner.repeated)
        return {json, Outcome::Unchanged};
    // nlohmann keeps the last value of a repeated key, as Qt does.
    const nlohmann::json document = nlohmann::json::parse(begin, end, nullptr, false);
    if (document.is_discarded())
        return {{}, Outcome::Refused, QJsonParseError::IllegalValue, 0};
    const std::string text = document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return {QByteArray(text.data(), int(text.size())), Outcome::Rewritten};
}

} // namespace

QByteArray screen(const QByteArray &json, Outcome *outcome)
{
    Screened screened = screenText(json);
    if (outcome)
        *outcome = screened.outcome;
    return screened.text;
}

QString screen(const QString &json)
{
    const QByteArray utf8 = json.toUtf8();
    Outcome outcome = Outcome::Unchanged;
    const QByteArray screened = screen(utf8, &outcome);
    return outcome == Outcome::Unchanged ? json : QString::fromUtf8(screened);
}

QJsonDocument parse(const QByteArray &json, QJsonParseError *error)
{
    const Screened screened = screenText(json);
    if (screened.outcome != Outcome::Refused)
        return QJsonDocument::fromJson(screened.text, error);
    if (error) {
        error->error = screened.error;
        error->offset = screened.offset;
    }
    return {};
}

} // namespace JsonScreen
