#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <deque>
#include <functional>

class QProcess;
class QTimer;

// External commands and waits run one after another, in the order queued,
// without blocking the event loop: each step starts, and the next one starts
// when it has ended.
//
// A program that runs past the command time-out is killed and the queue moves
// on at once; it counts as finished, like one that ended by itself. A program
// still running when the queue goes is killed and not waited for.
class tCommandQueue : public QObject
{
    Q_OBJECT
public:
    // Failed: the program could not be started or crashed. The exit code
    // does not count: exportfs reports harmless conditions with non-zero codes.
    enum class tOutcome { Finished, Failed };

    explicit tCommandQueue(QObject* parent = nullptr);
    ~tCommandQueue() override;

    // How long one program may run; 30 s unless set.
    void SetCommandTimeout(int ms);

    // Runs the program; `ended` learns how it went.
    void AddProcess(const QString& program, const QStringList& arguments,
                    std::function<void(tOutcome)> ended = nullptr);
    // A wait made of pauses: `nextPause` is asked for each next pause in ms
    // (the first at once), and a negative answer ends the wait.
    void AddPauses(std::function<int()> nextPause);
    // Runs `action` when its turn comes: at once, before returning, when
    // nothing is queued. With a context, only if the context still exists.
    void AddAction(QObject* context, std::function<void()> action);

    // A step is running or waiting.
    bool Pending() const;

signals:
    // The last step has ended and nothing is left.
    void Idle();

private:
    struct tStep
    {
        enum class tKind { Process, Pauses, Action };
        tKind kind = tKind::Action;
        QString program;
        QStringList arguments;
        std::function<void(tOutcome)> ended;
        std::function<int()> nextPause;
        bool guarded = false;
        QPointer<QObject> context;
        std::function<void()> action;
    };

    void Add(tStep step);
    void Advance();
    void Begin(tStep& step);
    void StartProcess(const tStep& step);
    void Pause();
    void OnTimeout();
    void EndProcess(tOutcome outcome);
    void End();

    std::deque<tStep> m_Waiting;
    tStep m_Current;
    bool m_Running = false;
    bool m_Advancing = false;
    // Whether Idle is owed: some step ran since the queue was last idle.
    bool m_Worked = false;
    QProcess* m_Process = nullptr;
    QTimer* m_Timer;
    int m_CommandTimeoutMs = 30000;
};
