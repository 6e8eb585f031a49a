#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QString>

// JSON from outside the process, made safe for Qt 5.15's parser. QJsonDocument::fromJson leaks
// the earlier value of a repeated object key when that value is an array or an object (about a
// hundred bytes every time, never returned), so anyone who can send the process JSON could run
// it out of memory with a few repeated keys. Every parse of such text goes through here first;
// on the appliance that includes text handed to the host's own Json::decode, which the plug-in
// cannot mend.
//
// The text is read once with nlohmann's JSON parser, which has no such leak. A document in which
// no object repeats a key is passed on unchanged, so Qt decodes it exactly as before. One that
// repeats keys is written anew with the last value of every repeated key, which is what Qt keeps
// too. Text that is not JSON is passed on unchanged when it holds no object (nothing to repeat,
// Qt decides); otherwise it is refused, even where Qt 5.15 would be lenient (raw control
// characters or unknown escapes in strings, unpaired surrogates, "1." or ".5"), because only a
// full reading could tell whether it repeats keys. A document nested deeper than Qt accepts is
// refused without being read further.
//
// Compiled into the plug-in, the host substitute and kest-run, hidden in each.
namespace JsonScreen {

enum class Outcome { Unchanged, Rewritten, Refused };

// The text to give Qt's parser (or Json::decode): see above. Refused text comes back empty,
// which Qt rejects as well.
QByteArray screen(const QByteArray &json, Outcome *outcome = nullptr);
QString screen(const QString &json);

// screen() and QJsonDocument::fromJson in one. Refused text gives a parse error at the byte
// where it stops being JSON (QJsonParseError::DeepNesting when it is nested too deeply).
QJsonDocument parse(const QByteArray &json, QJsonParseError *error = nullptr);

} // namespace JsonScreen
