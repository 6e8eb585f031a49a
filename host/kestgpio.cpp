#include "kestgpio.h"

#include "kesthi.h"

#include <QDebug>
#include <QDir>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>
#include <QSet>

#include <cstring>
#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

struct GpioState
{
    QMutex mutex;
    QList<KestGPIO::Call> calls;
    QHash<QString, int> handles; // line name -> line handle descriptor
    QSet<QString> reported;      // names already logged as missing
};

GpioState &state()
{
    static GpioState s;
    return s;
}

// Finds a line by name on every GPIO chip and requests it as an output.
int requestLine(const QString &name, int value)
{
    const QByteArray wanted = name.toUtf8();
    const QStringList chips = QDir(QStringLiteral("/dev")).entryList({QStringLiteral("gpiochip*")}, QDir::System);
    for (const QString &chip : chips) {
        const int fd = ::open(QByteArray("/dev/" + chip.toUtf8()).constData(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        gpiochip_info info{};
        if (::ioctl(fd, GPIO_GET_CHIPINFO_IOCTL, &info) == 0) {
            for (quint32 offset = 0; offset < info.lines; ++offset) {
                gpioline_info line{};
                line.line_offset = offset;
                if (::ioctl(fd, GPIO_GET_LINEINFO_IOCTL, &line) != 0 || wanted != line.name)
                    continue;
                gpiohandle_request request{};
                request.lineoffsets[0] = offset;
                request.lines = 1;
                request.flags = GPIOHANDLE_REQUEST_OUTPUT;
                request.default_values[0] = quint8(value ? 1 : 0);
                std::strncpy(request.consumer_label, "kest", sizeof(request.consumer_label) - 1);
                const int ok = ::ioctl(fd, GPIO_GET_LINEHANDLE_IOCTL, &request);
                ::close(fd);
                return ok == 0 ? request.fd : -1;
            }
        }
        ::close(fd);
    }
    return -1;
}

} // namespace

KestGPIO::KestGPIO(QObject *parent) : QObject(parent) {}

QVariant KestGPIO::setGPIO(QVariant args)
{
    const QVariantList list = args.toList();
    Call call;
    call.timeUs = KestHi::now();
    call.line = list.value(0).toString();
    call.value = list.value(1).toInt();

    GpioState &s = state();
    QMutexLocker locker(&s.mutex);
    int fd = s.handles.value(call.line, -1);
    if (fd >= 0) {
        gpiohandle_data values{};
        values.values[0] = quint8(call.value ? 1 : 0);
        call.applied = ::ioctl(fd, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &values) == 0;
    } else if (!call.line.isEmpty() && (fd = requestLine(call.line, call.value)) >= 0) {
        s.handles.insert(call.line, fd);
        call.applied = true; // the request itself set the value
    }
    if (!call.applied && !s.reported.contains(call.line)) {
        s.reported.insert(call.line);
        qDebug().noquote() << "[gpio] no GPIO line named" << call.line << "- calls are recorded only";
    }
    s.calls.append(call);
    return call.applied;
}

QList<KestGPIO::Call> KestGPIO::calls()
{
    QMutexLocker locker(&state().mutex);
    return state().calls;
}

void KestGPIO::clearCalls()
{
    QMutexLocker locker(&state().mutex);
    state().calls.clear();
}
