#include "essink.h"

#include "annexb.h"
#include "nodelog.h"
#include "registration.h"

#include <QTimer>

namespace {

const int registered = Kest::registerClass<EsSink>();

constexpr int kStatsIntervalMs = 1000;

const QString kVideoFile = QStringLiteral("video_file");
const QString kAudioFile = QStringLiteral("audio_file");

} // namespace

EsSink::EsSink(QObject *parent) : KestObject(parent), timer(new QTimer(this))
{
    data[kVideoFile] = QString();
    data[kAudioFile] = QString();
    connect(timer, &QTimer::timeout, this, &EsSink::onTimerStats);
}

void EsSink::onSetData(QVariantMap)
{
    if (!isStarted())
        return;
    if (data.value(kVideoFile).toString() != videoFile.fileName())
        open(videoFile, kVideoFile);
    if (data.value(kAudioFile).toString() != audioFile.fileName())
        open(audioFile, kAudioFile);
}

void EsSink::onStart()
{
    videoFrames = 0;
    audioFrames = 0;
    waitingForKey = true;
    open(videoFile, kVideoFile);
    open(audioFile, kAudioFile);
    timer->start(kStatsIntervalMs);
}

void EsSink::onStop()
{
    timer->stop();
    videoFile.close();
    audioFile.close();
}

void EsSink::open(QFile &file, const QString &key)
{
    file.close();
    file.setFileName(data.value(key).toString());
    if (&file == &videoFile)
        waitingForKey = true; // a new file starts with a key frame as well
    if (file.fileName().isEmpty())
        return;
    // Unbuffered: what arrived is in the file at once, for a player reading along.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        nodeLog(this) << QStringLiteral("cannot write %1: %2").arg(file.fileName(), file.errorString());
}

void EsSink::write(QFile &file, const char *bytes, int len)
{
    if (!file.isOpen() || len <= 0)
        return;
    if (file.write(bytes, len) != len) {
        nodeLog(this) << QStringLiteral("cannot write %1: %2 - file closed").arg(file.fileName(), file.errorString());
        file.close();
    }
}

void EsSink::onNewInfoV(StreamInfo info)
{
    infoV = info;
    videoCodec = info.codec;
    parameterSets = info.params.value(QStringLiteral("extradata")).toByteArray();
    waitingForKey = true;
    videoCodecLogged = false;
}

void EsSink::onNewInfoA(StreamInfo info)
{
    infoA = info;
    audioCodecLogged = false;
    audioUsable = false;
    if (info.codec != KestCodec::AAC)
        return;
    audioConfig = Adts::readAudioSpecificConfig(info.params.value(QStringLiteral("extradata")).toByteArray());
    if (!audioConfig.isValid())
        audioConfig = Adts::lowComplexity(info.params.value(QStringLiteral("samplerate")).toInt(),
                                          info.params.value(QStringLiteral("channels")).toInt());
    audioUsable = audioConfig.isValid();
    if (!audioUsable)
        nodeLog(this) << "the AAC description gives no usable configuration; audio is not written";
}

void EsSink::onNewPacketV(Packet pkt)
{
    if (!isStarted() || !pkt.data || pkt.len <= 0)
        return;
    if (videoCodec != KestCodec::H264 && videoCodec != KestCodec::H265) {
        if (!videoCodecLogged)
            nodeLog(this) << "video codec" << videoCodec << "is not written";
        videoCodecLogged = true;
        return;
    }
    const AnnexB::Stream unit = AnnexB::split(QByteArray::fromRawData(pkt.data, pkt.len),
                                              videoCodec == KestCodec::H264 ? AnnexB::Codec::H264 : AnnexB::Codec::H265);
    const bool key = !unit.units.isEmpty() && unit.units.first().key;
    // Frames before the first key frame could not be decoded: a file starts with a key frame.
    if (waitingForKey && !key)
        return;
    waitingForKey = false;
    if (key && unit.parameterSets.isEmpty())
        write(videoFile, parameterSets.constData(), parameterSets.size());
    write(videoFile, pkt.data, pkt.len);
    ++videoFrames;
}

void EsSink::onNewPacketA(Packet pkt)
{
    if (!isStarted() || !pkt.data || pkt.len <= 0)
        return;
    if (!audioUsable) {
        if (!audioCodecLogged && infoA.codec != KestCodec::AAC)
            nodeLog(this) << "audio codec" << infoA.codec << "is not written";
        audioCodecLogged = true;
        return;
    }
    const QByteArray header = Adts::header(audioConfig, pkt.len);
    if (header.isEmpty()) {
        nodeLog(this) << "an AAC frame of" << pkt.len << "bytes is too long for ADTS; dropped";
        return;
    }
    write(audioFile, header.constData(), header.size());
    write(audioFile, pkt.data, pkt.len);
    ++audioFrames;
}

void EsSink::onTimerStats()
{
    sendEvent(QStringLiteral("stats"), QVariantMap{{QStringLiteral("video"), videoFrames}, {QStringLiteral("audio"), audioFrames}});
}
