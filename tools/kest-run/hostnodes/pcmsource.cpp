#include "pcmsource.h"

#include "kesthi.h"
#include "nodelog.h"
#include "registration.h"

#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

const int registered = Kest::registerClass<PcmSource>();

// Consumers such as the intercom station write a 3-byte header in front of the samples.
constexpr int kPacketHeadroom = 3;
constexpr double kSilenceDb = -120;
constexpr int kMaxCatchUpFrames = 50; // behind by more (a stalled loop): skip, do not burst
constexpr int kAudioFrameType = 3;
constexpr int kMaxPacketBytes = 65507 - kPacketHeadroom; // still fits one UDP datagram
constexpr double kTwoPi = 6.283185307179586;

const QString kSampleRate = QStringLiteral("samplerate");
const QString kChannels = QStringLiteral("channels");
const QString kBitwidth = QStringLiteral("bitwidth");
const QString kFrameSize = QStringLiteral("frame_size");
const QString kFile = QStringLiteral("file");
const QString kToneHz = QStringLiteral("tone_hz");
const QString kLevelDb = QStringLiteral("level_db");

} // namespace

PcmSource::PcmSource(QObject *parent) : KestObject(parent), timer(new QTimer(this))
{
    data[kSampleRate] = 48000;
    data[kChannels] = 1;
    data[kBitwidth] = 16;
    data[kFrameSize] = 480;
    data[kFile] = QString();
    data[kToneHz] = 1000;
    data[kLevelDb] = -6;
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &PcmSource::onTimer);
}

void PcmSource::onSetData(QVariantMap)
{
    const double levelDb = data.value(kLevelDb).toDouble();
    gain = levelDb <= kSilenceDb ? 0.0 : std::pow(10.0, levelDb / 20.0);
    toneHz = data.value(kToneHz).toDouble();

    if (!isStarted())
        return;
    // A new format or file while running: announce the new stream and start it afresh.
    Format wanted;
    if (!readFormat(&wanted)) {
        end();
        return;
    }
    if (!running || !(wanted == format)) {
        end();
        format = wanted;
        begin();
    }
}

bool PcmSource::readFormat(Format *out) const
{
    Format f;
    f.sampleRate = data.value(kSampleRate).toInt();
    f.channels = data.value(kChannels).toInt();
    f.bitwidth = data.value(kBitwidth).toInt();
    f.frameSize = data.value(kFrameSize).toInt();
    f.file = data.value(kFile).toString();
    QString problem;
    if (f.sampleRate < 1 || f.sampleRate > 768000)
        problem = QStringLiteral("\"samplerate\" must be 1 to 768000");
    else if (f.channels < 1 || f.channels > 64)
        problem = QStringLiteral("\"channels\" must be 1 to 64");
    else if (f.bitwidth != 8 && f.bitwidth != 16)
        problem = QStringLiteral("\"bitwidth\" must be 8 or 16");
    else if (f.frameSize < 1 || qint64(f.frameSize) * f.channels * (f.bitwidth / 8) > kMaxPacketBytes)
        problem = QStringLiteral("\"frame_size\" must be at least 1 and a packet at most %1 bytes").arg(kMaxPacketBytes);
    if (!problem.isEmpty()) {
        nodeLog(this) << problem << "- no audio";
        return false;
    }
    *out = f;
    return true;
}

void PcmSource::onStart()
{
    if (readFormat(&format))
        begin();
}

void PcmSource::onStop()
{
    end();
}

bool PcmSource::begin()
{
    if (!format.file.isEmpty()) {
        file.setFileName(format.file);
        if (!file.open(QIODevice::ReadOnly)) {
            nodeLog(this) << QStringLiteral("cannot read %1: %2 - no audio").arg(format.file, file.errorString());
            return false;
        }
        if (file.size() == 0) {
            nodeLog(this) << QStringLiteral("%1 is empty - no audio").arg(format.file);
            file.close();
            return false;
        }
    }
    StreamInfo info;
    info.codec = KestCodec::None; // raw PCM
    info.params = {{kSampleRate, format.sampleRate},
                   {kChannels, format.channels},
                   {kBitwidth, format.bitwidth},
                   {kFrameSize, format.frameSize},
                   {QStringLiteral("sample_fmt"), format.bitwidth == 8 ? QStringLiteral("u8") : QStringLiteral("s16")}};
    info.source = this;
    infoA = info;
    sendInfoA(info);

    phase = 0;
    framesSent = 0;
    startPts = KestHi::now();
    clock.start();
    const double periodMs = 1000.0 * format.frameSize / format.sampleRate;
    // Ticks twice per frame period; the frames due are worked out from the clock, so the rate
    // stays exact whatever the timer's granularity.
    timer->start(std::max(1, int(periodMs / 2)));
    running = true;
    onTimer();
    return true;
}

void PcmSource::end()
{
    timer->stop();
    file.close();
    running = false;
}

void PcmSource::onTimer()
{
    if (!running)
        return;
    const double elapsedSeconds = double(clock.nsecsElapsed()) / 1e9;
    const qint64 due = qint64(elapsedSeconds * format.sampleRate / format.frameSize) + 1;
    if (due - framesSent > kMaxCatchUpFrames)
        framesSent = due - 1;
    while (running && framesSent < due)
        produceFrame();
}

void PcmSource::produceFrame()
{
    const int bytes = frameBytes();
    char *out = bufferData(nullptr, bytes, kPacketHeadroom);
    const qint64 pts = startPts + framesSent * qint64(format.frameSize) * 1000000 / format.sampleRate;
    ++framesSent;
    if (!out)
        return; // no packet memory ("memSize" below one frame): the frame is skipped
    if (format.file.isEmpty())
        fillTone(out, format.frameSize);
    else if (!fillFromFile(out, bytes))
        return;
    Packet pkt;
    pkt.data = out;
    pkt.len = bytes;
    pkt.pts = pts;
    pkt.dts = -1;
    pkt.frameType = kAudioFrameType;
    pkt.source = this;
    sendPacketA(pkt);
}

void PcmSource::fillTone(char *out, int samples)
{
    const double step = kTwoPi * toneHz / format.sampleRate;
    const double peak = gain * (format.bitwidth == 8 ? 127.0 : 32767.0);
    for (int i = 0; i < samples; ++i) {
        const long value = std::lround(peak * std::sin(phase));
        phase = std::fmod(phase + step, kTwoPi);
        for (int c = 0; c < format.channels; ++c) {
            if (format.bitwidth == 8) {
                *out++ = char(quint8(128 + value));
            } else {
                const qint16 s = qint16(value);
                std::memcpy(out, &s, sizeof(s));
                out += sizeof(s);
            }
        }
    }
}

bool PcmSource::fillFromFile(char *out, int bytes)
{
    int filled = 0;
    while (filled < bytes) {
        const qint64 got = file.read(out + filled, bytes - filled);
        if (got > 0) {
            filled += int(got);
            continue;
        }
        if (got < 0 || file.pos() == 0 || !file.seek(0)) {
            nodeLog(this) << QStringLiteral("cannot read %1: %2 - no audio").arg(format.file, file.errorString());
            end();
            return false;
        }
    }
    if (gain == 1.0)
        return true;
    if (format.bitwidth == 8) {
        for (int i = 0; i < bytes; ++i) {
            const double v = std::clamp((int(quint8(out[i])) - 128) * gain, -128.0, 127.0);
            out[i] = char(quint8(128 + std::lround(v)));
        }
    } else {
        for (int i = 0; i + 1 < bytes; i += 2) {
            qint16 s;
            std::memcpy(&s, out + i, sizeof(s));
            s = qint16(std::lround(std::clamp(s * gain, -32768.0, 32767.0)));
            std::memcpy(out + i, &s, sizeof(s));
        }
    }
    return true;
}
