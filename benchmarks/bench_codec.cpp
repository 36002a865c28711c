#include "content.h"

#include <trelanframe.h>
#include <trelanframereader.h>
#include <trelanobject.h>

#include <benchmark/benchmark.h>

using bus::TrelanFrame;
using bus::TrelanFrameReader;
using bus::TrelanObject;

namespace
{

QVariantMap publishRequest(int size)
{
    TrelanObject object;
    object.setName(QStringLiteral("host.box-17.readings"));
    object.setDt(QDateTime::fromMSecsSinceEpoch(1700000000123));
    object.setUid(QStringLiteral("kG2yYz5XbTtmYqvR7yk0rX1uVbU="));
    object.setContent(content::ofSize(size));
    return TrelanFrame::request(QStringLiteral("pub"), object.toVariantMap());
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
void frameEncode(benchmark::State &state)
{
    const QVariantMap envelope = publishRequest(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(TrelanFrame::encode(TrelanFrame::Request, envelope));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(frameEncode)->Apply(sizes);

/// The bytes of a frame, arrived at once, to its envelope.
void frameDecode(benchmark::State &state)
{
    const QByteArray frame =
        TrelanFrame::encode(TrelanFrame::Request, publishRequest(int(state.range(0))));
    for (auto _ : state) {
        TrelanFrameReader reader(frame.size());
        reader.feed(frame);
        if (reader.next() != TrelanFrameReader::FrameReady)
            state.SkipWithError("no frame");
        benchmark::DoNotOptimize(TrelanFrame::decodePayload(reader.payload()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(frameDecode)->Apply(sizes);

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
        benchmark::DoNotOptimize(TrelanFrame::compress(json));
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
    TrelanFrame::Fault fault = TrelanFrame::NoFault;
    const qint64 limit = TrelanFrame::maxInflatedSize();
    for (auto _ : state)
        benchmark::DoNotOptimize(TrelanFrame::uncompress(bytes, limit, &fault));
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
