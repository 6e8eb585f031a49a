#include "ndi/kestndirecv.h"

#include "json.h"
#include "kesthi.h"
#include "ndi/compressedframe.h"
#include "ndi/ndiruntime.h"
#include "nodelog.h"
#include "registration.h"

#include <QMutexLocker>
#include <QTimer>

#include <cmath>

namespace {

const int registered = Kest::registerClass<KestNDIRecv>();

constexpr int kMemSizeBytes = 16384000;     // the host's pool: room for several large key frames
constexpr int kFindIntervalMs = 2000;       // list refresh and reconnection
constexpr int kCaptureIntervalMs = 10;
constexpr int kTicksBeforeFinderReset = 5;  // getList() starts a new finder after more ticks
constexpr int kMaxFramesPerPass = 1000;     // a source that never lets up cannot hold the loop
constexpr qint64 kNdiUnitsPerUs = 10;       // NDI times count 100 ns
constexpr int kCopyHeadroom = 20;           // in front of a received compressed payload
constexpr int kAudioFrameType = 3;
constexpr int kSampleFormat = 1;            // the host's code for the decoder's sample format
const char kReceiverName[] = "test";        // the name the sender's side sees for this receiver

const QString kNameKey = QStringLiteral("name");
const QString kConfigKey = QStringLiteral("config");
const QString kMemSizeKey = QStringLiteral("memSize");

QString fourCCText(uint32_t fourcc)
{
    QString text;
    for (int i = 0; i < 4; ++i) {
        const char c = char((fourcc >> (8 * i)) & 0xff);
        text += c >= 0x20 && c < 0x7f ? QChar::fromLatin1(c) : QChar(u'?');
    }
    return text;
}

// The configuration file's top-level object as compact JSON; "{}" when the file is missing or
// holds something else. Characters outside ASCII are escaped, so the text means the same
// whether the runtime reads it as Latin-1 or as UTF-8.
QByteArray configText(const QString &path)
{
    const QVariant config = Json::loadFile(path);
    if (config.userType() != QMetaType::QVariantMap)
        return QByteArrayLiteral("{}");
    const QString json = Json::encode(config, false);
    QByteArray text;
    text.reserve(json.size());
    for (const QChar c : json) {
        if (c.unicode() < 0x80)
            text += char(c.unicode());
        else
            text += "\\u" + QByteArray::number(c.unicode(), 16).rightJustified(4, '0');
    }
    return text;
}

// Shared by both streams: the first frame of a connection starts its stream at 0, or, when the
// other stream is already running, at the other stream's current time.
qint64 rebase(qint64 t, qint64 &start, qint64 &last, qint64 otherStart, qint64 otherLast)
{
    if (start == 0) {
        if (otherStart != 0) {
            start = t - otherLast;
            last = otherLast;
        } else {
            start = t;
            last = 0;
        }
    } else {
        last = t - start;
    }
    return last;
}

QString videoCodecName(int codec)
{
    switch (codec) {
    case KestCodec::H264: return QStringLiteral("h264");
    case KestCodec::H265: return QStringLiteral("h265");
    case KestCodec::MPEG4: return QStringLiteral("mpeg4");
    default: return {};
    }
}

QString audioCodecName(int codec)
{
    switch (codec) {
    case KestCodec::PCMA: return QStringLiteral("pcma");
    case KestCodec::PCMU: return QStringLiteral("pcmu");
    case KestCodec::G722: return QStringLiteral("g722");
    case KestCodec::AAC: return QStringLiteral("aac");
    case KestCodec::MP2: return QStringLiteral("mp2");
    case KestCodec::MP3: return QStringLiteral("mp3");
    case KestCodec::AC3: return QStringLiteral("ac3");
    case KestCodec::Opus: return QStringLiteral("opus");
    default: return {};
    }
}

} // namespace

// Created by the library's static initialiser, next to the registration above.
QMutex KestNDIRecv::mutex;
NDIlib_find_instance_t KestNDIRecv::finder = nullptr;
const NDIlib_source_t *KestNDIRecv::sources = nullptr;
uint32_t KestNDIRecv::sourcesCount = 0;
QPointer<QTimer> KestNDIRecv::timer;
QVector<KestNDIRecv *> KestNDIRecv::startedReceivers;

KestNDIRecv::KestNDIRecv(QObject *parent) : KestObject(parent)
{
    data[kMemSizeKey] = kMemSizeBytes;
    data[kConfigKey] = QStringLiteral("/kest/config/ndi.json");
    const NdiRuntime &runtime = NdiRuntime::instance();
    if (runtime.isAvailable())
        ndi = &runtime.functions();
}

// Deliberately leaves the NDI receiver alone, as the host expects: clearing "name" releases it.
KestNDIRecv::~KestNDIRecv()
{
    QMutexLocker locker(&mutex);
    startedReceivers.removeAll(this);
    if (!timer || timer->parent() != this)
        return;
    // The shared timer would go down with this receiver: hand it to the next receiver started
    // on this thread, which then refreshes the list. With none left the next start makes one.
    for (KestNDIRecv *heir : qAsConst(startedReceivers)) {
        if (heir->thread() == thread()) {
            timer->setParent(heir);
            return;
        }
    }
    delete timer;
}

void KestNDIRecv::onStart()
{
    NdiRuntime::instance().reportProblemOnce(this);
    if (!ndi)
        return;
    {
        QMutexLocker locker(&mutex);
        if (!finder) {
            ndi->initialize();
            finder = ndi->find_create_v2(nullptr);
            if (!finder)
                nodeLog(this) << "create find error";
        }
        if (!timer) {
            timer = new QTimer(this);
            timer->start(kFindIntervalMs);
        }
        if (!startedReceivers.contains(this))
            startedReceivers.append(this);
    }
    // Deliberately not unique: every start adds a connection and a capture timer, and there is
    // no onStop to take them away; the host starts a receiver once.
    connect(timer, &QTimer::timeout, this, &KestNDIRecv::onTimer);
    startTimer(kCaptureIntervalMs, Qt::CoarseTimer);
}

void KestNDIRecv::onSetData(QVariantMap)
{
    // A new name is taken up by the next tick of the shared timer; an empty one takes effect now.
    if (!data.value(kNameKey).toString().isEmpty())
        return;
    if (recv)
        disconnectSource();
    sourceName.clear();
}

void KestNDIRecv::disconnectSource()
{
    if (recv)
        ndi->recv_destroy(recv);
    recv = nullptr;
    ++connections;
    audioStart = 0;
    audioLast = 0;
    videoStart = 0;
    videoLast = 0;
    // New descriptions go out after the next connection.
    infoA.codec = KestCodec::None;
    infoV.codec = KestCodec::None;
    videoDescribed = false;
    poolTooSmallLogged = false;
}

// --- discovery and connection -------------------------------------------------------------

void KestNDIRecv::onTimer()
{
    // Only the timer's owner asks the finder; the others read the list it keeps.
    if (ndi && timer && timer->parent() == this) {
        QMutexLocker locker(&mutex);
        if (!finder)
            finder = ndi->find_create_v2(nullptr);
        uint32_t count = 0;
        sources = finder ? ndi->find_get_current_sources(finder, &count) : nullptr;
        sourcesCount = sources ? count : 0;
    }
    const QString name = data.value(kNameKey).toString();
    // A name that is not listed (yet) is tried again on every tick; once accepted, it is not.
    if (!name.isEmpty() && name != sourceName)
        play(name);
    ++findTicks;
}

QVariant KestNDIRecv::getList()
{
    if (ndi && findTicks > kTicksBeforeFinderReset) {
        // Nobody asked for the list for a while: start discovery afresh. The list stays empty
        // until the timer's owner queries the new finder (at once, when that is this receiver).
        findTicks = 0;
        {
            QMutexLocker locker(&mutex);
            sourcesCount = 0;
            sources = nullptr;
            if (finder)
                ndi->find_destroy(finder);
            finder = ndi->find_create_v2(nullptr);
        }
        onTimer();
    }
    QVariantList list;
    QMutexLocker locker(&mutex);
    list.reserve(int(sourcesCount));
    for (uint32_t i = 0; i < sourcesCount; ++i)
        list.append(QString::fromUtf8(sources[i].p_ndi_name));
    return list;
}

QVariant KestNDIRecv::play(QVariant name)
{
    if (!ndi)
        return false;
    // Held to the end, the immediate capture pass included: the owner's refresh cannot replace
    // the source array under the connection.
    QMutexLocker locker(&mutex);
    const QString wanted = name.toString();
    const NDIlib_source_t *source = nullptr;
    for (uint32_t i = 0; i < sourcesCount && !source; ++i)
        if (sources[i].p_ndi_name && QString::fromUtf8(sources[i].p_ndi_name) == wanted)
            source = &sources[i];
    if (!source)
        return false;

    disconnectSource();
    NDIlib_recv_create_v3_t settings{};
    settings.source_to_connect_to = *source;
    settings.color_format = NDIlib_recv_color_format_compressed_v4_with_audio;
    settings.bandwidth = NDIlib_recv_bandwidth_highest;
    settings.allow_video_fields = true;
    settings.p_ndi_recv_name = kReceiverName;
    const QByteArray config = configText(data.value(kConfigKey).toString());
    recv = ndi->recv_create_v4 ? ndi->recv_create_v4(&settings, config.constData()) : ndi->recv_create_v3(&settings);
    sourceName = wanted;
    if (recv)
        ndi->recv_connect(recv, source);
    else
        nodeLog(this) << "create recv error";
    nodeLog(this) << QStringLiteral("connect to \"%1\"").arg(sourceName);
    timerEvent(nullptr); // what is already waiting goes out now
    return true;
}

QVariant KestNDIRecv::setTally(QVariant args)
{
    if (!recv)
        return false;
    const QVariantMap map = args.toMap();
    NDIlib_tally_t tally{};
    tally.on_program = map.value(QStringLiteral("program")).toBool();
    tally.on_preview = map.value(QStringLiteral("preview")).toBool();
    return ndi->recv_set_tally(recv, &tally);
}

// --- capture ---------------------------------------------------------------------------------

void KestNDIRecv::timerEvent(QTimerEvent *)
{
    if (!recv)
        return;
    const NDIlib_recv_instance_t instance = recv;
    const quint64 connection = connections;
    NDIlib_video_frame_v2_t video = ndiVideoFrameDefaults();
    NDIlib_audio_frame_v3_t audio = ndiAudioFrameDefaults();
    for (int taken = 0; taken < kMaxFramesPerPass; ++taken) {
        // A time-out of 0: take what is waiting, never wait for more.
        const NDIlib_frame_type_e type = ndi->recv_capture_v3(instance, &video, &audio, nullptr, 0);
        switch (type) {
        case NDIlib_frame_type_video:
            takeVideo(video);
            break;
        case NDIlib_frame_type_audio:
            if (audio.FourCC == NDIlib_FourCC_audio_type_ex_AAC)
                takeAudio(audio);
            break;
        case NDIlib_frame_type_error:
            nodeLog(this) << "error";
            return;
        case NDIlib_frame_type_none:
        case NDIlib_frame_type_status_change:
            return;
        default:
            continue;
        }
        // Whoever handled the packet or the event downstream may have ended the connection;
        // the frame then went with the destroyed instance.
        if (connections != connection)
            return;
        if (type == NDIlib_frame_type_video)
            ndi->recv_free_video_v2(instance, &video);
        else
            ndi->recv_free_audio_v3(instance, &audio);
    }
}

Packet KestNDIRecv::packetOf(const char *data, int size, int headroom, qint64 pts, int frameType)
{
    Packet pkt;
    pkt.data = bufferData(const_cast<char *>(data), size, headroom); // only read from
    if (!pkt.data && !poolTooSmallLogged) {
        nodeLog(this) << QStringLiteral("a frame of %1 bytes does not fit \"memSize\"; such frames are dropped").arg(size);
        poolTooSmallLogged = true;
    }
    pkt.len = size;
    pkt.pts = pts;
    pkt.dts = -1;
    pkt.frameType = frameType;
    pkt.source = nullptr;
    return pkt;
}

bool KestNDIRecv::describe(StreamInfo &info, bool video)
{
    const quint64 connection = connections;
    info.source = nullptr;
    if (video)
        sendInfoV(info);
    else
        sendInfoA(info);
    sendInfoEvent();
    return connections == connection;
}

void KestNDIRecv::takeVideo(const NDIlib_video_frame_v2_t &frame)
{
    const uint32_t fourcc = frame.FourCC;
    const char first = char(fourcc & 0xff);
    const char second = char((fourcc >> 8) & 0xff);
    if (first == 'H' && (second == '2' || second == 'E'))
        takeCompressedVideo(frame);
    else
        takeUncompressedVideo(frame);
}

void KestNDIRecv::takeCompressedVideo(const NDIlib_video_frame_v2_t &frame)
{
    const CompressedFrame packet = readCompressedFrame(frame.p_data, frame.data_size_in_bytes);
    if (!packet.isValid()) {
        nodeLog(this) << "video frame dropped:" << packet.problem;
        return;
    }
    // A decoder starts at a key frame, with the parameter sets that come with it: what arrives
    // before the first one (a connection made between two key frames) could not be decoded,
    // so it is dropped and the description waits for the key frame.
    const bool key = (packet.header.flags & NDIlib_compressed_packet_flags_keyframe) || packet.extraSize > 0;
    if (!videoDescribed && !key)
        return;
    const qint64 pts = rebase(packet.header.pts / kNdiUnitsPerUs, videoStart, videoLast, audioStart, audioLast);
    Packet pkt = packetOf(packet.payload, packet.payloadSize, kCopyHeadroom, pts, 0);
    if (!pkt.data)
        return;
    // Described before its first packet goes out: the host wants a stream's description first.
    if (infoV.codec == KestCodec::None && !videoDescribed && !describeCompressedVideo(frame, packet))
        return;
    sendPacketV(pkt);
}

bool KestNDIRecv::describeCompressedVideo(const NDIlib_video_frame_v2_t &frame, const CompressedFrame &packet)
{
    const uint32_t fourcc = frame.FourCC;
    const char last = char(fourcc >> 24);
    int codec = KestCodec::None;
    if (fourcc == NDIlib_FourCC_video_type_ex_H264_highest_bandwidth || last == '4')
        codec = KestCodec::H264;
    else if (fourcc == NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth || last == '5' || last == 'C')
        codec = KestCodec::H265;
    infoV.codec = codec;
    // "framerate" is the numerator alone, deliberately: the host's decoders take it as given.
    infoV.params = {{QStringLiteral("width"), frame.xres},
                    {QStringLiteral("height"), frame.yres},
                    {QStringLiteral("framerate"), frame.frame_rate_N},
                    {QStringLiteral("extradata"), QByteArray(packet.extra, packet.extraSize)}};
    // Without a codec the description still goes out, once per connection, not with every frame.
    videoDescribed = true;
    if (codec == KestCodec::None)
        nodeLog(this) << "compressed video" << fourCCText(fourcc) << "is neither H.264 nor H.265";
    return describe(infoV, true);
}

void KestNDIRecv::takeUncompressedVideo(const NDIlib_video_frame_v2_t &frame)
{
    // With the compressed receive format this is a format the loop does not parse (SpeedHQ),
    // whose data_size_in_bytes is its whole size; it goes on as it came.
    if (!frame.p_data || frame.data_size_in_bytes <= 0) {
        nodeLog(this) << "video frame dropped:"
                      << (frame.p_data ? QStringLiteral("its size %1 is not positive").arg(frame.data_size_in_bytes)
                                       : QStringLiteral("the frame has no data"));
        return;
    }
    qint64 now = 0;
    KestHi::getPTS(&now, false);
    Packet pkt = packetOf(reinterpret_cast<const char *>(frame.p_data), frame.data_size_in_bytes, 0, now, 0);
    if (!pkt.data)
        return;
    if (infoV.codec == KestCodec::None && !videoDescribed) {
        infoV.codec = KestCodec::RawVideo;
        const double rate = frame.frame_rate_D > 0 ? std::round(double(frame.frame_rate_N) / frame.frame_rate_D) : 0.0;
        infoV.params = {{QStringLiteral("width"), frame.xres},
                        {QStringLiteral("height"), frame.yres},
                        {QStringLiteral("framerate"), rate}};
        videoDescribed = true;
        if (!describe(infoV, true))
            return;
    }
    sendPacketV(pkt);
}

void KestNDIRecv::takeAudio(const NDIlib_audio_frame_v3_t &frame)
{
    const CompressedFrame packet = readCompressedFrame(frame.p_data, frame.data_size_in_bytes);
    if (!packet.isValid()) {
        nodeLog(this) << "audio frame dropped:" << packet.problem;
        return;
    }
    const qint64 pts = rebase(packet.header.pts / kNdiUnitsPerUs, audioStart, audioLast, videoStart, videoLast);
    Packet pkt = packetOf(packet.payload, packet.payloadSize, kCopyHeadroom, pts, kAudioFrameType);
    if (!pkt.data)
        return;
    if (infoA.codec == KestCodec::None) {
        infoA.codec = KestCodec::AAC;
        // "channel_layout" is the channel count plus one for every count (3 for stereo), as the
        // host's decoders expect it.
        infoA.params = {{QStringLiteral("sample_fmt"), kSampleFormat},
                        {QStringLiteral("samplerate"), frame.sample_rate},
                        {QStringLiteral("channels"), frame.no_channels},
                        {QStringLiteral("channel_layout"), frame.no_channels + 1},
                        {QStringLiteral("extradata"), QByteArray(packet.extra, packet.extraSize)},
                        {QStringLiteral("frame_size"), frame.no_samples}};
        if (!describe(infoA, false))
            return;
    }
    sendPacketA(pkt);
}

// --- events ----------------------------------------------------------------------------------

void KestNDIRecv::sendInfoEvent()
{
    QVariantMap audio = infoA.params;
    QVariantMap video = infoV.params;
    // A code without a name leaves the copy as it is.
    const QString audioName = audioCodecName(infoA.codec);
    if (!audioName.isEmpty())
        audio[QStringLiteral("codec")] = audioName;
    const QString videoName = videoCodecName(infoV.codec);
    if (!videoName.isEmpty())
        video[QStringLiteral("codec")] = videoName;
    sendEvent(QStringLiteral("ready"), QVariantMap{{QStringLiteral("infoA"), audio}, {QStringLiteral("infoV"), video}});
}
