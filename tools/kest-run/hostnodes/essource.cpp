#include "essource.h"

#include "adts.h"
#include "annexb.h"
#include "kesthi.h"
#include "nodelog.h"
#include "registration.h"

#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace {

const int registered = Kest::registerClass<EsSource>();

constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 720;
constexpr int kDefaultFrameRate = 25;
constexpr int kAudioFrameType = 3;
constexpr int kMaxTickMs = 10;
constexpr qint64 kMaxBurst = 1000; // packets per tick; a larger backlog (clock jump) is skipped

int codecFrom(const QVariant &setting, const QString &fileName)
{
    bool isNumber = false;
    const int number = setting.toInt(&isNumber);
    if (isNumber)
        return number;
    QString name = setting.toString().toLower();
    if (name.isEmpty())
        name = QFileInfo(fileName).suffix().toLower();
    if (name == QLatin1String("h264") || name == QLatin1String("264") || name == QLatin1String("avc"))
        return KestCodec::H264;
    if (name == QLatin1String("h265") || name == QLatin1String("265") || name == QLatin1String("hevc"))
        return KestCodec::H265;
    if (name == QLatin1String("aac") || name == QLatin1String("adts"))
        return KestCodec::AAC;
    return KestCodec::None;
}

} // namespace

EsSource::EsSource(QObject *parent) : KestEncodeV(parent), timer(new QTimer(this))
{
    data[QStringLiteral("loop")] = true;
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &EsSource::onTick);
}

EsSource::~EsSource() = default;

bool EsSource::load()
{
    const QString path = data.value(QStringLiteral("file")).toString();
    codec = codecFrom(data.value(QStringLiteral("codec")), path);
    if (codec != KestCodec::H264 && codec != KestCodec::H265 && codec != KestCodec::AAC) {
        nodeLog(this) << "cannot tell the codec of" << path << "- set \"codec\" to 4, 5 or 10";
        return false;
    }
    QFile in(path);
    if (!in.open(QIODevice::ReadOnly)) {
        nodeLog(this) << "cannot read" << path << ":" << in.errorString();
        return false;
    }
    file = in.readAll();
    units.clear();
    audio = codec == KestCodec::AAC;
    StreamInfo info;
    info.codec = codec;
    info.source = this;
    if (audio) {
        const Adts::Stream stream = Adts::parse(file);
        for (const Adts::Frame &frame : stream.frames)
            units.append({frame.offset, frame.size, true});
        if (units.isEmpty() || stream.sampleRate <= 0) {
            nodeLog(this) << path << "holds no ADTS AAC frames";
            return false;
        }
        periodUs = 1e6 * Adts::kSamplesPerFrame / stream.sampleRate;
        info.params = {{QStringLiteral("samplerate"), stream.sampleRate},
                       {QStringLiteral("channels"), stream.channels},
                       {QStringLiteral("frame_size"), Adts::kSamplesPerFrame},
                       {QStringLiteral("extradata"), stream.audioSpecificConfig}};
    } else {
        const AnnexB::Stream stream = AnnexB::split(file, codec == KestCodec::H264 ? AnnexB::Codec::H264 : AnnexB::Codec::H265);
        for (const AnnexB::AccessUnit &unit : stream.units)
            units.append({unit.offset, unit.size, unit.key});
        if (units.isEmpty()) {
            nodeLog(this) << path << "holds no access units";
            return false;
        }
        const int rate = data.value(QStringLiteral("framerate"), kDefaultFrameRate).toInt();
        if (rate <= 0) {
            nodeLog(this) << "\"framerate\" must be positive";
            return false;
        }
        periodUs = 1e6 / rate;
        info.params = {{QStringLiteral("width"), data.value(QStringLiteral("width"), kDefaultWidth).toInt()},
                       {QStringLiteral("height"), data.value(QStringLiteral("height"), kDefaultHeight).toInt()},
                       {QStringLiteral("framerate"), rate},
                       {QStringLiteral("ntsc"), false},
                       {QStringLiteral("extradata"), stream.parameterSets}};
    }
    if (audio)
        sendInfoA(info);
    else
        sendInfoV(info);
    return true;
}

void EsSource::onStart()
{
    timer->stop();
    loop = data.value(QStringLiteral("loop"), true).toBool();
    if (!load())
        return;
    startUs = KestHi::now();
    sent = 0;
    position = 0;
    timer->start(std::clamp(int(periodUs / 2000), 1, kMaxTickMs));
}

void EsSource::onStop()
{
    timer->stop();
}

QVariant EsSource::idr()
{
    skipToKey = true;
    return ++idrRequests;
}

QVariant EsSource::idrCount()
{
    return idrRequests.load();
}

int EsSource::nextKeyFrom(int index) const
{
    for (int i = 0; i < units.size(); ++i) {
        const int at = (index + i) % units.size();
        if (at < index && !loop)
            break;
        if (units[at].key)
            return at;
    }
    return index;
}

void EsSource::onTick()
{
    // Packets are due by the host clock, so a test that moves the clock gets them at once.
    const qint64 due = qint64(std::floor((KestHi::now() - startUs) / periodUs)) + 1;
    if (due - sent > kMaxBurst)
        sent = due - kMaxBurst;
    while (sent < due) {
        if (position >= units.size()) {
            if (!loop) {
                timer->stop();
                sendEvent(QStringLiteral("end"), sent);
                return;
            }
            position = 0;
        }
        if (skipToKey.exchange(false))
            position = nextKeyFrom(position);
        emitUnit(units[position], startUs + qint64(std::llround(double(sent) * periodUs)));
        ++position;
        ++sent;
    }
}

void EsSource::emitUnit(const Unit &unit, qint64 pts)
{
    Packet pkt;
    pkt.data = bufferData(const_cast<char *>(file.constData()) + unit.offset, unit.size, 0); // only read from
    if (!pkt.data) {
        if (!tooLargeLogged)
            nodeLog(this) << "a frame of" << unit.size << "bytes does not fit \"memSize\"; such frames are skipped";
        tooLargeLogged = true;
        return;
    }
    pkt.len = unit.size;
    pkt.pts = pts;
    pkt.dts = -1;
    pkt.source = this;
    if (audio) {
        pkt.frameType = kAudioFrameType;
        sendPacketA(pkt);
    } else {
        pkt.frameType = unit.key ? 0 : 1;
        sendPacketV(pkt);
    }
}
