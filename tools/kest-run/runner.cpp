#include "runner.h"

#include "catalogue.h"
#include "jsonscreen.h"
#include "kestobject.h"
#include "variantjson.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaMethod>
#include <QSysInfo>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

KestObject::Media parseMedia(const QJsonValue &value, bool *ok)
{
    const QString media = value.isUndefined() ? QStringLiteral("both") : value.toString();
    *ok = true;
    if (media == QLatin1String("audio"))
        return KestObject::Audio;
    if (media == QLatin1String("video"))
        return KestObject::Video;
    if (media == QLatin1String("both"))
        return KestObject::Both;
    *ok = false;
    return KestObject::Both;
}

// "%MACHINE%" in a graph's settings stands for this machine's part of NDI source names
// ("MACHINE (source)"): the host name in upper case. A graph can then name a source published
// on the same machine wherever it runs.
QVariant expandPlaceholders(const QVariant &value)
{
    static const QString machine = QSysInfo::machineHostName().toUpper();
    switch (value.userType()) {
    case QMetaType::QString: {
        QString text = value.toString();
        return text.replace(QLatin1String("%MACHINE%"), machine);
    }
    case QMetaType::QVariantMap: {
        QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it)
            *it = expandPlaceholders(*it);
        return map;
    }
    case QMetaType::QVariantList: {
        QVariantList list = value.toList();
        for (QVariant &item : list)
            item = expandPlaceholders(item);
        return list;
    }
    default:
        return value;
    }
}

// One cycle among the links that carry `media`, as "a" -> "b" -> "a"; empty when there is none.
// Delivery along such links would come back to where it started, without end.
template <typename Link>
QString findCycle(const QStringList &names, const std::vector<Link> &links, KestObject::Media media)
{
    enum Mark { Unvisited, OnPath, Done };
    QHash<QString, Mark> marks;
    QStringList path;
    std::function<QString(const QString &)> visit = [&](const QString &node) -> QString {
        marks[node] = OnPath;
        path << node;
        for (const Link &link : links) {
            if (link.from != node || !(link.media & media))
                continue;
            if (marks.value(link.to) == OnPath) {
                QStringList cycle = path.mid(path.indexOf(link.to)) << link.to;
                for (QString &name : cycle)
                    name = quoted(name);
                return cycle.join(QStringLiteral(" -> "));
            }
            if (marks.value(link.to) == Unvisited) {
                const QString found = visit(link.to);
                if (!found.isEmpty())
                    return found;
            }
        }
        path.removeLast();
        marks[node] = Done;
        return {};
    };
    for (const QString &name : names) {
        if (marks.value(name) != Unvisited)
            continue;
        const QString found = visit(name);
        if (!found.isEmpty())
            return found;
    }
    return {};
}

QString describeJsonError(const QByteArray &text, const QJsonParseError &error)
{
    const QByteArray before = text.left(error.offset);
    const int line = before.count('\n') + 1;
    return QStringLiteral("%1 at line %2").arg(error.errorString()).arg(line);
}

} // namespace

Runner::Runner(QObject *parent) : QObject(parent) {}

Runner::~Runner()
{
    clear();
}

bool Runner::load(const QByteArray &graphJson, QString *error)
{
    QJsonParseError parseError{};
    const QJsonDocument doc = JsonScreen::parse(graphJson, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("invalid JSON: %1").arg(describeJsonError(graphJson, parseError));
        return false;
    }
    if (!doc.isObject()) {
        *error = QStringLiteral("the graph must be a JSON object with \"nodes\" and \"links\"");
        return false;
    }
    const QJsonObject graph = doc.object();
    if (!graph.value(QLatin1String("nodes")).isArray()) {
        *error = QStringLiteral("\"nodes\" must be a list of nodes");
        return false;
    }
    const QJsonValue linksValue = graph.value(QLatin1String("links"));
    if (!linksValue.isUndefined() && !linksValue.isArray()) {
        *error = QStringLiteral("\"links\" must be a list of links");
        return false;
    }

    struct NodeEntry
    {
        QString name;
        QString className;
        QVariantMap data;
        bool start;
    };
    std::vector<NodeEntry> entries;
    const QJsonArray nodeList = graph.value(QLatin1String("nodes")).toArray();
    for (int i = 0; i < nodeList.size(); ++i) {
        const QJsonObject node = nodeList.at(i).toObject();
        const QString name = node.value(QLatin1String("name")).toString();
        const QString className = node.value(QLatin1String("class")).toString();
        const QString where = QStringLiteral("node %1").arg(i + 1);
        if (!nodeList.at(i).isObject() || name.isEmpty()) {
            *error = QStringLiteral("%1 has no \"name\"").arg(where);
            return false;
        }
        if (className.isEmpty()) {
            *error = QStringLiteral("node %1 has no \"class\"").arg(quoted(name));
            return false;
        }
        const QJsonValue dataValue = node.value(QLatin1String("data"));
        if (!dataValue.isUndefined() && !dataValue.isObject()) {
            *error = QStringLiteral("\"data\" of node %1 must be an object").arg(quoted(name));
            return false;
        }
        for (const NodeEntry &s : entries) {
            if (s.name == name) {
                *error = QStringLiteral("duplicate node name %1").arg(quoted(name));
                return false;
            }
        }
        entries.push_back({name, className, expandPlaceholders(dataValue.toObject().toVariantMap()).toMap(),
                           node.value(QLatin1String("start")).toBool(true)});
    }

    struct LinkEntry
    {
        QString from, to;
        KestObject::Media media;
    };
    std::vector<LinkEntry> linkEntries;
    const QJsonArray linkList = linksValue.toArray();
    for (int i = 0; i < linkList.size(); ++i) {
        const QJsonObject link = linkList.at(i).toObject();
        LinkEntry entry{link.value(QLatin1String("from")).toString(), link.value(QLatin1String("to")).toString(),
                        KestObject::Both};
        for (const QString &end : {entry.from, entry.to}) {
            const bool exists = std::any_of(entries.begin(), entries.end(), [&](const NodeEntry &s) { return s.name == end; });
            if (!exists) {
                *error = QStringLiteral("link %1 refers to a missing node %2").arg(i + 1).arg(quoted(end));
                return false;
            }
        }
        bool ok = false;
        entry.media = parseMedia(link.value(QLatin1String("media")), &ok);
        if (!ok) {
            *error = QStringLiteral("link %1 has media %2; use \"audio\", \"video\" or \"both\"")
                         .arg(i + 1)
                         .arg(quoted(link.value(QLatin1String("media")).toVariant().toString()));
            return false;
        }
        linkEntries.push_back(entry);
    }
    QStringList names;
    for (const NodeEntry &s : entries)
        names << s.name;
    for (const auto &[media, mediaName] : {std::pair{KestObject::Audio, "audio"}, std::pair{KestObject::Video, "video"}}) {
        const QString cycle = findCycle(names, linkEntries, media);
        if (!cycle.isEmpty()) {
            *error = QStringLiteral("the links form a cycle for %1: %2").arg(QLatin1String(mediaName), cycle);
            return false;
        }
    }

    for (const NodeEntry &entry : entries) {
        KestObject *object = createNode(entry.className.toLatin1());
        if (!object) {
            *error = QStringLiteral("unknown class %1 for node %2; available classes: %3")
                         .arg(quoted(entry.className), quoted(entry.name), nodeClassNames().join(QStringLiteral(", ")));
            clear();
            return false;
        }
        object->setName(entry.name);
        const QString nodeName = entry.name;
        connect(object, &KestObject::eventSent, this, [this, nodeName](const QString &type, const QVariant &info) {
            print(jsonLine({{"node", nodeName}, {"event", type}, {"value", toJson(info)}}));
        });
        nodes.append({entry.name, object, entry.start});
        byName.insert(entry.name, object);
    }
    for (int i = 0; i < nodes.size(); ++i)
        nodes[i].object->setData(entries[size_t(i)].data);
    for (const LinkEntry &link : linkEntries)
        byName.value(link.from)->link(byName.value(link.to), link.media);
    return true;
}

void Runner::startNodes()
{
    for (const Node &node : qAsConst(nodes))
        if (node.start)
            node.object->start();
}

void Runner::handleLine(const QByteArray &line)
{
    if (quitting || line.trimmed().isEmpty())
        return;
    QJsonParseError parseError{};
    const QJsonDocument doc = JsonScreen::parse(line, &parseError);
    if (parseError.error != QJsonParseError::NoError || !doc.isObject()) {
        printError(parseError.error != QJsonParseError::NoError
                       ? QStringLiteral("invalid JSON: %1").arg(parseError.errorString())
                       : QStringLiteral("a control line must be a JSON object"));
        return;
    }
    const QJsonObject command = doc.object();
    if (command.value(QLatin1String("quit")).toBool()) {
        quit(0);
        return;
    }
    if (!command.contains(QLatin1String("node"))) {
        printError(QStringLiteral("a control line needs \"node\" (or \"quit\")"));
        return;
    }
    const QString nodeName = command.value(QLatin1String("node")).toString();
    KestObject *node = byName.value(nodeName);
    if (!node) {
        printError(QStringLiteral("unknown node %1").arg(quoted(nodeName)));
        return;
    }

    if (command.contains(QLatin1String("call"))) {
        const QJsonValue args = command.value(QLatin1String("args"));
        if (!args.isUndefined() && !args.isArray()) {
            printError(QStringLiteral("\"args\" must be a list"));
            return;
        }
        call(node, nodeName, command.value(QLatin1String("call")).toString(), args.toArray().toVariantList());
    } else if (command.contains(QLatin1String("set"))) {
        if (!command.value(QLatin1String("set")).isObject()) {
            printError(QStringLiteral("\"set\" must be an object"));
            return;
        }
        node->setData(command.value(QLatin1String("set")).toObject().toVariantMap());
    } else if (command.value(QLatin1String("start")).toBool()) {
        node->start();
    } else if (command.value(QLatin1String("stop")).toBool()) {
        node->stop();
    } else if (command.contains(QLatin1String("event"))) {
        const QJsonObject event = command.value(QLatin1String("event")).toObject();
        if (!event.value(QLatin1String("type")).isString()) {
            printError(QStringLiteral("\"event\" needs a \"type\" string"));
            return;
        }
        node->onNewEvent(event.value(QLatin1String("type")).toString(), event.value(QLatin1String("value")).toVariant());
    } else {
        printError(QStringLiteral("nothing to do for node %1: use call, set, start, stop or event").arg(quoted(nodeName)));
    }
}

void Runner::call(KestObject *node, const QString &nodeName, const QString &slot, const QVariantList &args)
{
    const QMetaObject *mo = node->metaObject();
    bool nameFound = false;
    QString conversionError;
    // Only the slots of the node's own classes, from KestObject down: QObject's methods
    // (deleteLater above all) would let a control line pull the node out from under the host.
    for (int i = mo->methodCount() - 1; i >= KestObject::staticMetaObject.methodOffset(); --i) {
        const QMetaMethod method = mo->method(i);
        if (method.access() != QMetaMethod::Public || method.methodType() != QMetaMethod::Slot
            || QString::fromLatin1(method.name()) != slot)
            continue;
        nameFound = true;
        if (method.parameterCount() != args.size() || args.size() > 10)
            continue;

        // Convert the JSON arguments to the parameter types; QVariant parameters take them as is.
        std::vector<QVariant> values(size_t(args.size()));
        bool converted = true;
        for (int a = 0; a < args.size() && converted; ++a) {
            const int type = method.parameterType(a);
            values[size_t(a)] = args.at(a);
            if (type == QMetaType::QVariant)
                continue;
            if (values[size_t(a)].userType() != type && !values[size_t(a)].convert(type)) {
                conversionError = QStringLiteral("argument %1 of %2 cannot be given as %3")
                                      .arg(a + 1)
                                      .arg(quoted(slot), QString::fromLatin1(method.parameterTypes().at(a)));
                converted = false;
            }
        }
        if (!converted)
            continue;

        QGenericArgument generic[10];
        for (int a = 0; a < args.size(); ++a) {
            const int type = method.parameterType(a);
            QVariant &v = values[size_t(a)];
            generic[a] = QGenericArgument(QMetaType::typeName(type), type == QMetaType::QVariant ? static_cast<const void *>(&v) : v.constData());
        }
        QVariant result;
        QGenericReturnArgument returnArgument;
        const int returnType = method.returnType();
        if (returnType == QMetaType::QVariant) {
            returnArgument = QGenericReturnArgument("QVariant", &result);
        } else if (returnType != QMetaType::Void && returnType != QMetaType::UnknownType) {
            result = QVariant(returnType, nullptr);
            returnArgument = QGenericReturnArgument(method.typeName(), result.data());
        }
        if (!method.invoke(node, Qt::DirectConnection, returnArgument, generic[0], generic[1], generic[2],
                           generic[3], generic[4], generic[5], generic[6], generic[7], generic[8], generic[9])) {
            printError(QStringLiteral("calling %1 on node %2 failed").arg(quoted(slot), quoted(nodeName)));
            return;
        }
        print(jsonLine({{"node", nodeName}, {"call", slot}, {"result", toJson(result)}}));
        return;
    }
    if (!nameFound)
        printError(QStringLiteral("node %1 has no slot %2").arg(quoted(nodeName), quoted(slot)));
    else if (!conversionError.isEmpty())
        printError(conversionError);
    else
        printError(QStringLiteral("slot %1 of node %2 takes a different number of arguments than %3")
                       .arg(quoted(slot), quoted(nodeName))
                       .arg(args.size()));
}

void Runner::quit(int code)
{
    if (quitting)
        return;
    quitting = true;
    // Every node gets onStop before it is destroyed, started or not: that is what releases
    // what onSetData may already have created.
    for (int i = nodes.size() - 1; i >= 0; --i)
        nodes[i].object->stop();
    clear();
    std::fflush(stdout);
    QCoreApplication::exit(code);
}

void Runner::clear()
{
    for (int i = nodes.size() - 1; i >= 0; --i)
        delete nodes[i].object;
    nodes.clear();
    byName.clear();
}

void Runner::print(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

void Runner::handleError(const QString &message)
{
    if (!quitting)
        printError(message);
}

void Runner::printError(const QString &message)
{
    print(jsonLine({{"error", message}}));
}
