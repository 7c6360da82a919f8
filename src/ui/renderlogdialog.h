#pragma once

#include <QDialog>
#include <QPointer>
#include <QProcess>
#include <QProgressDialog>
#include <QString>

class QComboBox;
class QLineEdit;

class QPushButton;

// "Render a log…": a performance log rendered again into a sound file, with
// the voice it was played with or another one, by the arbo-render tool
// beside the program (libpd's hooks reach one player per process, and this
// one plays live). A progress dialog follows the render and can cancel it,
// which leaves no file behind.
//
// The instrument goes on playing meanwhile: nothing here waits.
//
// GUI thread.
class RenderLogDialog : public QDialog
{
    Q_OBJECT
public:
    // `folder`: where the logs are looked for first.
    RenderLogDialog(const QString& folder, QWidget* parent = nullptr);
    ~RenderLogDialog() override;

    // The tool that renders, beside the program.
    static QString renderTool();

    bool isRendering() const { return mProcess != nullptr; }
    QProgressDialog* progressDialog() const { return mProgress; }

public slots:
    // Renders what the fields say. False when they are not filled in or the
    // tool cannot start; renderFinished() follows otherwise.
    bool startRender();
    void chooseLog();
    void chooseOutput();

signals:
    void renderFinished(bool ok, const QString& message);

private:
    void onOutput();
    void onFinished(int exitCode, QProcess::ExitStatus status);

    QLineEdit* mLog;
    QLineEdit* mOutput;
    QComboBox* mVoice;
    QComboBox* mFormat;
    QPushButton* mRenderButton;
    QString mFolder;
    QProcess* mProcess = nullptr;
    QPointer<QProgressDialog> mProgress;
    bool mCancelled = false;
};
