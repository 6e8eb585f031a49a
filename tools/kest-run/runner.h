#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QVector>

class KestObject;

// Runs one graph the way the appliance's host does: creates the nodes by class name, gives
// them their settings, links them, starts them, and then obeys JSON control lines.
class Runner : public QObject
{
    Q_OBJECT
public:
    explicit Runner(QObject *parent = nullptr);
    ~Runner() override;

    // Builds the graph; on failure returns false with one message naming the problem and
    // leaves no node behind.
    bool load(const QByteArray &graphJson, QString *error);
    void startNodes();

    // One control line. Answers (results, errors) go to stdout as JSON lines.
    void handleLine(const QByteArray &line);
    // An input that is not a line to handle (one too long): answered as an error.
    void handleError(const QString &message);

    // Stops every node, deletes them and ends the event loop with `code`.
    void quit(int code);

private:
    struct Node
    {
        QString name;
        KestObject *object = nullptr;
        bool start = true;
    };

    void print(const QByteArray &line);
    void printError(const QString &message);
    void call(KestObject *node, const QString &nodeName, const QString &slot, const QVariantList &args);
    void clear();

    QVector<Node> nodes;
    QHash<QString, KestObject *> byName;
    bool quitting = false;
};
