#include "DocumentSearch.h"

#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#ifdef Q_OS_LINUX
#include <sys/resource.h>
#include <unistd.h>
#endif

// What the worker found on one page for one search.
struct DocumentSearch::Outcome {
    quint64 generation = 0;
    const PdfPage *key = nullptr;
    quint64 version = 0;
    bool failed = false;
    // The text read from the page now, for the index; none when the index had it.
    std::shared_ptr<const PdfSearchText> read;
    std::shared_ptr<const PdfSearchText> text;
    std::vector<PdfSearchText::Match> matches;
    std::vector<std::vector<PdfSearchText::Quad>> quads;
};

// One thread that reads and matches pages, urgent ones first. It touches no
// engine object but the recordings it is given, made for use on a worker.
class DocumentSearch::Worker {
public:
    struct Task {
        const PdfPage *key = nullptr;
        quint64 version = 0;
        // Reads the page (with boxes) when set; else `text` is matched.
        std::shared_ptr<PdfPageRecording> recording;
        std::shared_ptr<const PdfSearchText> text;
    };

    explicit Worker(DocumentSearch *owner) : owner_(owner), thread_([this] { run(); }) {}

    ~Worker()
    {
        std::deque<Task> dropped[2];
        {
            std::lock_guard hold(mutex_);
            stop_ = true;
            dropped[0].swap(tasks_);
            dropped[1].swap(urgent_);
            if (inFlight_)
                inFlight_->abort();
        }
        wake_.notify_all();
        thread_.join();
    }

    // A new search: what was queued for the last one goes, and a page being
    // read for it stops. Recordings are let go outside the worker's lock:
    // dropping one takes the engine's document lock, which the caller may hold.
    void begin(quint64 generation, const QString &query, PdfSearchOptions options)
    {
        std::deque<Task> dropped[2];
        std::lock_guard hold(mutex_);
        generation_ = generation;
        query_ = query;
        options_ = options;
        dropped[0].swap(tasks_);
        dropped[1].swap(urgent_);
        if (inFlight_)
            inFlight_->abort();
    }

    void add(Task task, bool urgent)
    {
        {
            std::lock_guard hold(mutex_);
            (urgent ? urgent_ : tasks_).push_back(std::move(task));
        }
        wake_.notify_one();
    }

    std::vector<Outcome> takeOutcomes()
    {
        std::lock_guard hold(mutex_);
        return std::exchange(outbox_, {});
    }

private:
    void run()
    {
#ifdef Q_OS_LINUX
        // Below the user-interface thread, like the page rendering workers.
        setpriority(PRIO_PROCESS, pid_t(gettid()), 5);
#endif
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stop_ || !tasks_.empty() || !urgent_.empty(); });
            if (stop_)
                return;
            auto &queue = urgent_.empty() ? tasks_ : urgent_;
            Task task = std::move(queue.front());
            queue.pop_front();
            const quint64 generation = generation_;
            const QString query = query_;
            const PdfSearchOptions options = options_;
            inFlight_ = task.recording;
            lock.unlock();
            std::optional<Outcome> outcome = process(task, generation, query, options);
            lock.lock();
            inFlight_.reset(); // `task` still holds the recording
            if (outcome && !stop_) {
                outbox_.push_back(std::move(*outcome));
                if (outbox_.size() == 1)
                    QMetaObject::invokeMethod(owner_, "deliver", Qt::QueuedConnection);
            }
            lock.unlock();
            task = Task{}; // the recording goes outside the lock
            lock.lock();
        }
    }

    // True when the search the task belongs to was replaced or the worker stops.
    bool superseded(quint64 generation)
    {
        std::unique_lock lock(mutex_);
        // The document was busy: try again in a moment, unless told otherwise meanwhile.
        wake_.wait_for(lock, std::chrono::milliseconds(1), [&] { return stop_ || generation_ != generation; });
        return stop_ || generation_ != generation;
    }

    std::optional<Outcome> process(const Task &task, quint64 generation, const QString &query, PdfSearchOptions options)
    {
        Outcome out;
        out.generation = generation;
        out.key = task.key;
        out.version = task.version;
        if (!task.recording) {
            out.text = task.text;
            out.matches = task.text->find(query, options);
            return out;
        }
        for (;;) {
            switch (task.recording->recordText(true)) {
            case PdfPageRecording::Result::Recorded: {
                const auto full = task.recording->text();
                out.matches = full->find(query, options);
                out.quads.reserve(out.matches.size());
                for (const auto &match : out.matches)
                    out.quads.push_back(full->quads(match));
                out.read = std::make_shared<const PdfSearchText>(full->withoutBoxes());
                out.text = out.read;
                return out;
            }
            case PdfPageRecording::Result::Failed:
                // A page whose text cannot be read is passed over.
                out.failed = true;
                return out;
            case PdfPageRecording::Result::Interrupted:
                if (superseded(generation))
                    return std::nullopt;
                break;
            }
        }
    }

    DocumentSearch *owner_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    quint64 generation_ = 0;
    QString query_;
    PdfSearchOptions options_;
    std::deque<Task> tasks_;
    std::deque<Task> urgent_;
    std::shared_ptr<PdfPageRecording> inFlight_;
    std::vector<Outcome> outbox_;
    std::thread thread_;
};

DocumentSearch::DocumentSearch(QObject *parent) : QObject(parent), worker_(std::make_unique<Worker>(this)) {}

DocumentSearch::~DocumentSearch()
{
    worker_.reset();
}

void DocumentSearch::setDocument(std::shared_ptr<PdfDocument> document)
{
    if (document == document_)
        return;
    clear();
    disconnect(changes_);
    disconnect(listChanges_);
    index_.clear();
    order_.clear();
    document_ = std::move(document);
    if (!document_)
        return;
    changes_ = connect(document_->changes(), &PdfChangeChannel::pageChanged, this,
                       [this](const std::shared_ptr<PdfPage> &page) { pageChanged(page); });
    listChanges_ = connect(document_->changes(), &PdfChangeChannel::pageListChanged, this, &DocumentSearch::pageListChanged);
}

void DocumentSearch::start(const QString &query, PdfSearchOptions options, int fromIndex)
{
    resetResults();
    query_ = PdfSearchText::searchable(query);
    options_ = options;
    order_.clear();
    std::erase_if(index_, [](const auto &entry) { return entry.second.page.expired(); });
    if (!document_ || document_->isLocked() || query_.isEmpty()) {
        emit progressChanged();
        return;
    }
    worker_->begin(generation_, query_, options_);
    const int count = document_->pageCount();
    for (int i = 0; i < count; ++i)
        order_[document_->page(i).get()] = i;
    fromIndex = count > 0 ? std::clamp(fromIndex, 0, count - 1) : 0;
    from_ = document_->page(fromIndex);
    for (int k = 0; k < count; ++k)
        enqueue(document_->page((fromIndex + k) % count), false, false, true);
    emit progressChanged();
}

void DocumentSearch::clear()
{
    resetResults();
    query_.clear();
    emit progressChanged();
}

void DocumentSearch::resetResults()
{
    ++generation_;
    worker_->begin(generation_, QString(), {});
    waiting_.clear();
    quadsAsked_.clear();
    searched_ = 0;
    hits_ = 0;
    const bool had = !results_.empty();
    results_.clear();
    if (had)
        emit resultsCleared();
}

void DocumentSearch::enqueue(const std::shared_ptr<PdfPage> &page, bool urgent, bool needBoxes, bool counted)
{
    if (!page)
        return;
    Entry &entry = index_[page.get()];
    if (entry.page.expired())
        entry = Entry{page, entry.version + 1, nullptr};
    Worker::Task task{page.get(), entry.version, nullptr, entry.text};
    if (needBoxes || !entry.text) {
        task.recording = page->recording();
        task.text.reset();
        if (!task.recording)
            return; // not in the document now: nothing to search
    }
    if (counted)
        waiting_.insert(page.get());
    worker_->add(std::move(task), urgent);
}

void DocumentSearch::requestQuads(const std::shared_ptr<PdfPage> &page)
{
    const int row = rowOf(page.get());
    if (row < 0 || !results_[size_t(row)].quads.empty() || quadsAsked_.contains(page.get()) || waiting_.contains(page.get()))
        return;
    quadsAsked_.insert(page.get());
    enqueue(page, true, true, false);
}

void DocumentSearch::pageChanged(const std::shared_ptr<PdfPage> &page)
{
    auto it = index_.find(page.get());
    if (it != index_.end()) {
        ++it->second.version;
        it->second.text.reset();
    }
    if (query_.isEmpty() || orderOf(page.get()) < 0 || page->document() != document_)
        return;
    // Read again at once; a page searched already is not counted twice.
    quadsAsked_.erase(page.get());
    enqueue(page, true, true, waiting_.contains(page.get()));
}

void DocumentSearch::pageListChanged()
{
    if (query_.isEmpty())
        return;
    // Pages came, went or moved: search again in the new order, from where
    // the last search started as far as that page is still there.
    auto from = from_.lock();
    const int index = from ? from->index() : 0;
    start(QString(query_), options_, std::max(index, 0));
}

void DocumentSearch::deliver()
{
    std::vector<Outcome> outcomes = worker_->takeOutcomes();
    for (Outcome &outcome : outcomes)
        take(outcome);
    if (!outcomes.empty())
        emit progressChanged();
}

void DocumentSearch::take(Outcome &outcome)
{
    auto it = index_.find(outcome.key);
    if (it == index_.end())
        return;
    auto page = it->second.page.lock();
    if (!page || outcome.version != it->second.version)
        return; // the page changed since: a newer reading is on its way
    if (outcome.read)
        it->second.text = outcome.read;
    if (outcome.generation != generation_)
        return;
    if (waiting_.erase(outcome.key) > 0)
        ++searched_;
    quadsAsked_.erase(outcome.key);
    if (!outcome.failed)
        place(page, outcome);
}

void DocumentSearch::place(const std::shared_ptr<PdfPage> &page, Outcome &outcome)
{
    int row = rowOf(page.get());
    if (outcome.matches.empty()) {
        if (row >= 0) {
            hits_ -= int(results_[size_t(row)].matches.size());
            results_.erase(results_.begin() + row);
            emit resultRemoved(row);
        }
        return;
    }
    PageHits hits{page, std::move(outcome.text), std::move(outcome.matches), std::move(outcome.quads)};
    hits_ += int(hits.matches.size());
    if (row >= 0) {
        hits_ -= int(results_[size_t(row)].matches.size());
        results_[size_t(row)] = std::move(hits);
        emit resultChanged(row);
        return;
    }
    const int order = orderOf(page.get());
    auto at = std::lower_bound(results_.begin(), results_.end(), order,
                               [this](const PageHits &h, int o) { return orderOf(h.page.get()) < o; });
    row = int(at - results_.begin());
    results_.insert(at, std::move(hits));
    emit resultInserted(row);
}

int DocumentSearch::orderOf(const PdfPage *page) const
{
    auto it = order_.find(page);
    return it == order_.end() ? -1 : it->second;
}

int DocumentSearch::rowOf(const PdfPage *page) const
{
    const int order = orderOf(page);
    if (order < 0)
        return -1;
    auto at = std::lower_bound(results_.begin(), results_.end(), order,
                               [this](const PageHits &h, int o) { return orderOf(h.page.get()) < o; });
    return at != results_.end() && at->page.get() == page ? int(at - results_.begin()) : -1;
}

qint64 DocumentSearch::indexBytes() const
{
    qint64 bytes = 0;
    for (const auto &[key, entry] : index_)
        bytes += qint64(sizeof(key) + sizeof(entry)) + (entry.text ? entry.text->bytes() : 0);
    return bytes;
}

int DocumentSearch::indexedPages() const
{
    return int(std::count_if(index_.begin(), index_.end(), [](const auto &entry) { return entry.second.text != nullptr; }));
}
