// JSON from outside the process through the screen. Qt's parser only ever sees screened text
// here: given the raw text it would leak on repeated keys, and LeakSanitizer would report it.
#include "fuzz/fuzzing.h"
#include "host/json.h"
#include "host/jsonscreen.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(bytes), int(size));
    JsonScreen::Outcome outcome = JsonScreen::Outcome::Unchanged;
    const QByteArray screened = JsonScreen::screen(text, &outcome);
    if (outcome == JsonScreen::Outcome::Refused) {
        FUZZ_EXPECT(screened.isEmpty());
        // Json::decode screens the same text (a scalar inside an array): it refuses it as well.
        const QString decodable = QString::fromUtf8(text);
        if (decodable.toUtf8() == text)
            FUZZ_EXPECT(!Json::decode(decodable).isValid());
        return 0;
    }
    FUZZ_EXPECT(outcome == JsonScreen::Outcome::Rewritten || screened == text);
    const QJsonDocument document = QJsonDocument::fromJson(screened);
    // A rewrite is the screen's own output: always a document Qt reads.
    FUZZ_EXPECT(outcome == JsonScreen::Outcome::Unchanged || !document.isNull());
    if (!document.isNull()) {
        // Compared as text: Qt writes every number as a double, so integers beyond 2^53 come
        // back rounded.
        const QString encoded = Json::encode(document.toVariant(), false);
        FUZZ_EXPECT(Json::encode(Json::decode(encoded), false) == encoded);
    }
    return 0;
}
