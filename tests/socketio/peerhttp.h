#pragma once

// Blocking HTTP calls from a test to a local peer's control port. The event loop keeps running
// while it waits, so the code under test goes on working meanwhile.

#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

struct PeerReply
{
    int status = 0; // 0: no answer
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

inline PeerReply peerHttp(const QByteArray &method, const QUrl &url, const QByteArray &body = {},
                          const QByteArray &contentType = QByteArrayLiteral("application/json"), int timeoutMs = 8000)
{
    QNetworkAccessManager network;
    QNetworkRequest request(url);
    if (!body.isEmpty())
        request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    request.setTransferTimeout(timeoutMs);
    QNetworkReply *reply = network.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    PeerReply result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    delete reply;
    return result;
}
