#include "sharing/CommandQueue.h"

#include "daemon/Logging.h"

#include <QProcess>
#include <QTimer>

namespace
{
// QProcess's destructor warns about a program still running and then waits
// for it. One let go here is killed and marked ended instead, and Qt's
// SIGCHLD handling reaps it once the kill has taken effect.
class tCommandProcess : public QProcess
{
public:
    using QProcess::QProcess;

    void Abandon()
    {
        disconnect();
        kill();
        setProcessState(QProcess::NotRunning);
    }
};
} // namespace

tCommandQueue::tCommandQueue(QObject* parent)
    : QObject(parent)
    , m_Timer(new QTimer(this))
{
    m_Timer->setSingleShot(true);
    // A coarse timer may fire early, and the pauses are minimum waits.
    m_Timer->setTimerType(Qt::PreciseTimer);
    connect(m_Timer, &QTimer::timeout, this, &tCommandQueue::OnTimeout);
}

tCommandQueue::~tCommandQueue()
{
    if (m_Process) {
        static_cast<tCommandProcess*>(m_Process)->Abandon();
        delete m_Process;
    }
}

void tCommandQueue::SetCommandTimeout(int ms)
{
    m_CommandTimeoutMs = ms;
}

void tCommandQueue::AddProcess(const QString& program, const QStringList& arguments,
                               std::function<void(tOutcome)> ended)
{
    tStep step;
    step.kind = tStep::tKind::Process;
    step.program = program;
    step.arguments = arguments;
    step.ended = std::move(ended);
    Add(std::move(step));
}

void tCommandQueue::AddPauses(std::function<int()> nextPause)
{
    tStep step;
    step.kind = tStep::tKind::Pauses;
    step.nextPause = std::move(nextPause);
    Add(std::move(step));
}

void tCommandQueue::AddAction(QObject* context, std::function<void()> action)
{
    if (!Pending()) {
        action();
        return;
    }
    tStep step;
    step.kind = tStep::tKind::Action;
    step.guarded = context != nullptr;
    step.context = context;
    step.action = std::move(action);
    Add(std::move(step));
}

bool tCommandQueue::Pending() const
{
    return m_Running || !m_Waiting.empty();
}

void tCommandQueue::Add(tStep step)
{
    m_Waiting.push_back(std::move(step));
    Advance();
}

void tCommandQueue::Advance()
{
    // Steps that end at once (actions, a program that cannot start) end
    // inside Begin; the loop, not recursion, carries on after them.
    if (m_Advancing)
        return;
    m_Advancing = true;
    const QPointer<tCommandQueue> alive(this);
    while (!m_Running && !m_Waiting.empty()) {
        m_Current = std::move(m_Waiting.front());
        m_Waiting.pop_front();
        m_Running = true;
        m_Worked = true;
        Begin(m_Current);
        // An action may take the queue's owner, and the queue, with it.
        if (!alive)
            return;
    }
    m_Advancing = false;
    if (!m_Running && m_Worked) {
        m_Worked = false;
        Q_EMIT Idle();
    }
}

void tCommandQueue::Begin(tStep& step)
{
    switch (step.kind) {
    case tStep::tKind::Process:
        StartProcess(step);
        break;
    case tStep::tKind::Pauses:
        Pause();
        break;
    case tStep::tKind::Action: {
        const std::function<void()> action = (!step.guarded || step.context) ? step.action : nullptr;
        m_Running = false;
        if (action)
            action();
        break;
    }
    }
}

void tCommandQueue::StartProcess(const tStep& step)
{
    auto* process = new tCommandProcess(this);
    m_Process = process;
    connect(process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        // The other errors end with finished().
        if (error == QProcess::FailedToStart)
            EndProcess(tOutcome::Failed);
    });
    connect(process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this](int, QProcess::ExitStatus status) {
                EndProcess(status == QProcess::CrashExit ? tOutcome::Failed : tOutcome::Finished);
            });
    m_Timer->start(m_CommandTimeoutMs);
    process->start(step.program, step.arguments);
}

void tCommandQueue::Pause()
{
    const int ms = m_Current.nextPause();
    if (ms < 0)
        End();
    else
        m_Timer->start(ms);
}

void tCommandQueue::OnTimeout()
{
    if (!m_Running)
        return;
    if (m_Current.kind == tStep::tKind::Pauses) {
        Pause();
        return;
    }
    if (!m_Process)
        return;
    qCDebug(lcServicePublisher, "tCommandQueue::OnTimeout(): killing %s after %d ms",
            qUtf8Printable(m_Current.program), m_CommandTimeoutMs);
    // Not waited for: a program stuck in the kernel would hold the queue.
    auto* process = static_cast<tCommandProcess*>(m_Process);
    m_Process = nullptr;
    process->Abandon();
    delete process;
    // Counted as if it had ended by itself, as a time-out always was.
    EndProcess(tOutcome::Finished);
}

void tCommandQueue::EndProcess(tOutcome outcome)
{
    if (m_Process) {
        m_Process->disconnect(this);
        // Deleted later: this may run inside one of its signals.
        m_Process->deleteLater();
        m_Process = nullptr;
    }
    const std::function<void(tOutcome)> ended = std::move(m_Current.ended);
    m_Timer->stop();
    m_Running = false;
    const QPointer<tCommandQueue> alive(this);
    if (ended)
        ended(outcome);
    if (alive)
        Advance();
}

void tCommandQueue::End()
{
    m_Timer->stop();
    m_Running = false;
    Advance();
}
