#include "redisbus.h"

#include "payload.h"

#include <hiredis/hiredis.h>

namespace
{

constexpr int NAMES = 1000; // as many as the objects of this bus have
constexpr timeval PATIENCE {10, 0};

class RedisPublisher : public Publisher
{
public:
    bool open(int port)
    {
        _context.reset(redisConnectWithTimeout("127.0.0.1", port, PATIENCE));
        return _context && _context->err == 0 &&
               redisSetTimeout(_context.get(), PATIENCE) == REDIS_OK;
    }

    bool publish(const QVariantMap &content) override { return publishAll(content, 1); }
    bool publishAll(const QVariantMap &content, int number) override
    {
        for (int i = 0; i < number; ++i) {
            const QByteArray value = _payload.pack(content);
            redisAppendCommand(_context.get(), "SET bench.%d %b", ++_number % NAMES,
                               value.constData(), size_t(value.size()));
        }
        for (int i = 0; i < number; ++i) {
            if (!takeStatus())
                return false;
        }
        return true;
    }

private:
    struct Free
    {
        void operator()(redisContext *context) const { redisFree(context); }
        void operator()(void *reply) const { freeReplyObject(reply); }
    };

    bool takeStatus()
    {
        void *reply = nullptr;
        if (redisGetReply(_context.get(), &reply) != REDIS_OK)
            return false;
        const std::unique_ptr<void, Free> owned(reply);
        return static_cast<redisReply *>(reply)->type == REDIS_REPLY_STATUS;
    }

    const Payload _payload {Payload::Json};
    std::unique_ptr<redisContext, Free> _context;
    int _number = 0;
};

} // namespace

RedisBus::RedisBus(const QStringList &address)
    : _port(address.value(0).toInt())
{}

std::unique_ptr<Publisher> RedisBus::connectPublisher()
{
    auto publisher = std::make_unique<RedisPublisher>();
    return publisher->open(_port) ? std::move(publisher) : nullptr;
}

std::unique_ptr<Receiver> RedisBus::connectReceiver(int /*number*/, Arrivals & /*arrivals*/)
{
    return nullptr;
}
