#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace bus
{

/// \brief Does jobs of one kind in a thread of its own, in the order in which they were given.
///
/// Jobs that come while the thread is busy are handed to it together, so that one wait for the disk
/// serves many publishes. Results wait until the owner takes them.
///
/// The owner calls add(), takeResults() and finish() from one thread, and limits the number of jobs
/// where that is needed.
template <typename Job, typename Result>
class BackgroundWorker
{
public:
    /// Returns one result for each job, in their order.
    using Work = std::function<std::vector<Result>(std::vector<Job>)>;
    using Wake = std::function<void()>;

    /// \a wake is called in the worker's thread whenever there are new results.
    BackgroundWorker(Work work, Wake wake)
        : _work(std::move(work))
        , _wake(std::move(wake))
        , _thread([this] { run(); })
    {}

    ~BackgroundWorker() { finish(); }

    BackgroundWorker(const BackgroundWorker &) = delete;
    BackgroundWorker &operator=(const BackgroundWorker &) = delete;

    void add(Job job)
    {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _jobs.push_back(std::move(job));
        }
        _changed.notify_one();
    }

    std::vector<Result> takeResults()
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        return std::exchange(_results, {});
    }

    /// Returns when all jobs are done and the thread has ended; their results can still be taken.
    void finish()
    {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _finishing = true;
        }
        _changed.notify_one();
        if (_thread.joinable())
            _thread.join();
    }

private:
    void run()
    {
        for (;;) {
            std::vector<Job> jobs = waitForJobs();
            if (jobs.empty())
                return;
            std::vector<Result> results = _work(std::move(jobs));
            {
                const std::lock_guard<std::mutex> lock(_mutex);
                for (Result &result : results)
                    _results.push_back(std::move(result));
            }
            _wake();
        }
    }

    /// Empty when there is nothing left to do and nothing to come.
    std::vector<Job> waitForJobs()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return _finishing || !_jobs.empty(); });
        return std::exchange(_jobs, {});
    }

    const Work _work;
    const Wake _wake;
    std::condition_variable _changed;
    std::mutex _mutex; // guards _jobs, _results and _finishing
    std::vector<Job> _jobs;
    std::vector<Result> _results;
    bool _finishing = false;
    std::thread _thread; // last, since it uses everything above
};

} // namespace bus
