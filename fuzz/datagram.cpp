// One intercom datagram as a station reads it: header, then an alive or a command body. A
// command that decodes must arrive unchanged when a station sends it on.
#include "fuzz/fuzzing.h"
#include "host/json.h"
#include "host/jsonscreen.h"
#include "intercom/datagram.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const char *data = reinterpret_cast<const char *>(bytes);
    const int length = int(qMin<size_t>(size, Intercom::kMaxDatagramSize));
    const Intercom::Header header = Intercom::readHeader(data, length);
    const Intercom::Body body = Intercom::body(data, length);
    FUZZ_EXPECT(body.size == 0 || (body.data >= data && body.data + body.size <= data + length));
    if (header.type == Intercom::Alive) {
        QString::fromUtf8(body.data, body.size);
    } else if (header.type == Intercom::Command) {
        const QVariant command = Json::decode(JsonScreen::screen(Intercom::commandText(body)));
        if (command.isValid()) {
            // Compared as text: Qt writes every number as a double, so integers beyond 2^53
            // come back rounded, the same at every station.
            const QString text = Json::encode(command, false);
            const QByteArray sent = Intercom::commandBody(text);
            const QString received = Intercom::commandText({sent.constData(), sent.size()});
            FUZZ_EXPECT(Json::encode(Json::decode(JsonScreen::screen(received)), false) == text);
        }
    }
    return 0;
}
