#include "content.h"
#include "request/busrequest.h"

#include <jsonreader.h>
#include <jsonwriter.h>
#include <trelanframe.h>
#include <trelanframereader.h>
#include <trelanobject.h>
#include <zstream.h>

#include <QtCore/QJsonObject>

#include <benchmark/benchmark.h>

using bus::TrelanFrame;
using bus::TrelanFrameReader;
using bus::TrelanObject;
using bus::TrelanTransport;

namespace
{

/// Different ones for each \a variant.
QVariantMap publishRequest(int size, int variant = 0)
{
    QVariantMap content = content::ofSize(size);
    QVariantList readings = content.value(QStringLiteral("readings")).toList();
    for (int i = 0; i < readings.size(); ++i)
        readings[i] = content::reading(i + 1000 * variant);
    content[QStringLiteral("readings")] = readings;
    TrelanObject object;
    object.setName(QStringLiteral("host.box-17.readings"));
    object.setDt(QDateTime::fromMSecsSinceEpoch(1700000000123));
    object.setUid(QStringLiteral("kG2yYz5XbTtmYqvR7yk0rX1uVbU="));
    object.setContent(content);
    return TrelanFrame::request(QStringLiteral("pub"), object.toVariantMap());
}

/// As many as it takes that a processor cannot learn them by heart: with one alone, whatever
/// branches on every byte seems to cost nothing.
QVector<QVariantMap> publishRequests(int size)
{
    QVector<QVariantMap> requests;
    for (int variant = 0; variant < qBound(8, 256 * 1024 / size, 256); ++variant)
        requests.append(publishRequest(size, variant));
    return requests;
}

QByteArray envelopeJson(int size)
{
    return QJsonDocument::fromVariant(publishRequest(size)).toJson();
}

void sizes(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(content::SMALL)->Arg(content::MEDIUM)->Arg(content::LARGE);
}

/// An envelope to the bytes of its frame.
void frameEncode(benchmark::State &state, TrelanTransport::Coding coding)
{
    const QVector<QVariantMap> envelopes = publishRequests(int(state.range(0)));
    int next = 0;
    for (auto _ : state) {
        const QVariantMap &envelope = envelopes.at(next++ % envelopes.size());
        benchmark::DoNotOptimize(TrelanFrame::encode(TrelanFrame::Request, envelope, coding));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(frameEncode, classic, TrelanTransport::Classic)->Apply(sizes);
BENCHMARK_CAPTURE(frameEncode, light, TrelanTransport::Light)->Apply(sizes);

/// The bytes of a frame, arrived at once, to its envelope.
void frameDecode(benchmark::State &state, TrelanTransport::Coding coding)
{
    QVector<QByteArray> frames;
    for (const QVariantMap &envelope : publishRequests(int(state.range(0))))
        frames.append(TrelanFrame::encode(TrelanFrame::Request, envelope, coding));
    int next = 0;
    for (auto _ : state) {
        const QByteArray &frame = frames.at(next++ % frames.size());
        TrelanFrameReader reader(frame.size());
        reader.feed(frame);
        if (reader.next() != TrelanFrameReader::FrameReady)
            state.SkipWithError("no frame");
        benchmark::DoNotOptimize(TrelanFrame::decodePayload(reader.payload()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(frameDecode, classic, TrelanTransport::Classic)->Apply(sizes);
BENCHMARK_CAPTURE(frameDecode, light, TrelanTransport::Light)->Apply(sizes);

/// The payload of a publish, as the bus looks into it.
void requestCheck(benchmark::State &state)
{
    QVector<QByteArray> payloads;
    for (const QVariantMap &envelope : publishRequests(int(state.range(0))))
        payloads.append(TrelanFrame::encodePayload(envelope, TrelanTransport::Light));
    const qint64 limit = TrelanFrame::maxInflatedSize();
    int next = 0;
    for (auto _ : state) {
        const QByteArray &payload = payloads.at(next++ % payloads.size());
        const bus::BusRequest request = bus::BusRequest::parse(payload, limit);
        if (request.operation != bus::BusRequest::Publish)
            state.SkipWithError("no publish");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(requestCheck)->Apply(sizes);

void jsonWriteQt(benchmark::State &state)
{
    const QVariantMap map = publishRequest(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(QJsonDocument::fromVariant(map).toJson(QJsonDocument::Compact));
}
BENCHMARK(jsonWriteQt)->Apply(sizes);

void jsonWrite(benchmark::State &state)
{
    const QVariantMap map = publishRequest(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(bus::json::compact(map));
}
BENCHMARK(jsonWrite)->Apply(sizes);

void jsonReadQt(benchmark::State &state)
{
    const QByteArray json = envelopeJson(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(QJsonDocument::fromJson(json).object().toVariantMap());
}
BENCHMARK(jsonReadQt)->Apply(sizes);

void jsonRead(benchmark::State &state)
{
    const QByteArray json = envelopeJson(int(state.range(0)));
    QVariantMap map;
    for (auto _ : state)
        benchmark::DoNotOptimize(bus::json::read(json, map));
}
BENCHMARK(jsonRead)->Apply(sizes);

void compressQt(benchmark::State &state)
{
    const QByteArray json = envelopeJson(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(qCompress(json, -1));
}
BENCHMARK(compressQt)->Apply(sizes);

void compressReused(benchmark::State &state)
{
    const QByteArray json = envelopeJson(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(bus::zstream::compress(json));
}
BENCHMARK(compressReused)->Apply(sizes);

void uncompressQt(benchmark::State &state)
{
    const QByteArray bytes = qCompress(envelopeJson(int(state.range(0))));
    for (auto _ : state)
        benchmark::DoNotOptimize(qUncompress(bytes));
}
BENCHMARK(uncompressQt)->Apply(sizes);

void uncompressReused(benchmark::State &state)
{
    const QByteArray bytes = qCompress(envelopeJson(int(state.range(0))));
    const qint64 limit = TrelanFrame::maxInflatedSize();
    for (auto _ : state) {
        QByteArray json;
        benchmark::DoNotOptimize(bus::zstream::uncompress(bytes, limit, json));
        benchmark::DoNotOptimize(json);
    }
}
BENCHMARK(uncompressReused)->Apply(sizes);

void testWildCard(benchmark::State &state, const char *wildcard, bool matches)
{
    const QString name = QStringLiteral("host.box-17.net.eth0.queue3");
    const QString pattern = QString::fromLatin1(wildcard);
    if (TrelanObject::testWildCard(name, pattern) != matches)
        state.SkipWithError("measures something else than it says");
    for (auto _ : state)
        benchmark::DoNotOptimize(TrelanObject::testWildCard(name, pattern));
}
BENCHMARK_CAPTURE(testWildCard, literal, "host.box-17.net.eth0.queue3", true);
BENCHMARK_CAPTURE(testWildCard, plus, "+.box-17.net.eth0.+", true);
BENCHMARK_CAPTURE(testWildCard, star, "host.box-17.*", true);
BENCHMARK_CAPTURE(testWildCard, stars, "*.net.*", true);
BENCHMARK_CAPTURE(testWildCard, miss, "host.box-18.*", false);

} // namespace

BENCHMARK_MAIN();
