#include "ui/renderlogdialog.h"

#include "recording/audiofilewriter.h"
#include "settings/paths.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>

namespace {

// A line edit with a "Choose…" button beside it.
QWidget* withChooser(QLineEdit* edit, QPushButton* button)
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(edit, 1);
    layout->addWidget(button);
    return row;
}

} // namespace

RenderLogDialog::RenderLogDialog(const QString& folder, QWidget* parent)
    : QDialog(parent), mLog(new QLineEdit), mOutput(new QLineEdit), mVoice(new QComboBox),
      mFormat(new QComboBox), mFolder(folder)
{
    setObjectName(QStringLiteral("renderLogDialog"));
    setWindowTitle(tr("Render a log"));
    mLog->setObjectName(QStringLiteral("renderLogEdit"));
    mOutput->setObjectName(QStringLiteral("renderOutputEdit"));
    mVoice->setObjectName(QStringLiteral("renderVoiceBox"));
    mFormat->setObjectName(QStringLiteral("renderFormatBox"));

    mVoice->addItem(tr("The one it was played with"), QString());
    const QDir voices(Paths::resourceDir() + QStringLiteral("/patches"));
    for (const QFileInfo& voice :
         voices.entryInfoList({QStringLiteral("*.pd")}, QDir::Files, QDir::Name)) {
        mVoice->addItem(voice.completeBaseName(), voice.absoluteFilePath());
    }
    for (const QString& name : AudioFileWriter::formatNames()) {
        AudioFileWriter::Format format = AudioFileWriter::WavFloat;
        AudioFileWriter::formatFromName(name, &format);
        mFormat->addItem(AudioFileWriter::formatLabel(format), name);
    }
    mFormat->setCurrentIndex(AudioFileWriter::WavFloat);
    // The file's name follows the format chosen.
    connect(mFormat, QOverload<int>::of(&QComboBox::currentIndexChanged), this, [this](int index) {
        const QFileInfo output(mOutput->text());
        if (!mOutput->text().isEmpty()) {
            mOutput->setText(output.absolutePath() + QLatin1Char('/') + output.completeBaseName() +
                             QLatin1Char('.') +
                             AudioFileWriter::extension(AudioFileWriter::Format(index)));
        }
    });

    auto* chooseLogButton = new QPushButton(tr("Choose…"));
    auto* chooseOutputButton = new QPushButton(tr("Choose…"));
    connect(chooseLogButton, &QPushButton::clicked, this, &RenderLogDialog::chooseLog);
    connect(chooseOutputButton, &QPushButton::clicked, this, &RenderLogDialog::chooseOutput);
    auto* form = new QFormLayout;
    form->addRow(tr("Performance log"), withChooser(mLog, chooseLogButton));
    form->addRow(tr("Sound file"), withChooser(mOutput, chooseOutputButton));
    form->addRow(tr("Voice"), mVoice);
    form->addRow(tr("Format"), mFormat);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    mRenderButton = buttons->addButton(tr("Render"), QDialogButtonBox::AcceptRole);
    mRenderButton->setObjectName(QStringLiteral("renderButton"));
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
    connect(mRenderButton, &QPushButton::clicked, this, &RenderLogDialog::startRender);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(buttons);
    resize(560, sizeHint().height());
}

RenderLogDialog::~RenderLogDialog()
{
    if (mProcess) {
        mCancelled = true;
        mProcess->terminate(); // the tool removes its half-written file
        mProcess->waitForFinished(5000);
    }
}

QString RenderLogDialog::renderTool()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/arbo-render");
}

void RenderLogDialog::chooseLog()
{
    const QString log = QFileDialog::getOpenFileName(
        this, tr("Performance log"), mLog->text().isEmpty() ? mFolder : mLog->text(),
        tr("Performance logs (*.jsonl)"));
    if (log.isEmpty()) {
        return;
    }
    mLog->setText(log);
    if (mOutput->text().isEmpty()) {
        const QFileInfo info(log);
        mOutput->setText(info.absolutePath() + QLatin1Char('/') + info.completeBaseName() +
                         QStringLiteral("-rendered.wav"));
    }
}

void RenderLogDialog::chooseOutput()
{
    const QString output = QFileDialog::getSaveFileName(
        this, tr("Sound file"), mOutput->text().isEmpty() ? mFolder : mOutput->text(),
        tr("Sound files (*.wav *.flac)"));
    if (!output.isEmpty()) {
        mOutput->setText(output);
    }
}

bool RenderLogDialog::startRender()
{
    if (mProcess || mLog->text().isEmpty() || mOutput->text().isEmpty()) {
        return false;
    }
    QStringList arguments{mLog->text(), mOutput->text(), QStringLiteral("--progress-lines"),
                          QStringLiteral("--format"), mFormat->currentData().toString()};
    if (!mVoice->currentData().toString().isEmpty()) {
        arguments << QStringLiteral("--patch") << mVoice->currentData().toString();
    }
    mCancelled = false;
    mProcess = new QProcess(this);
    connect(mProcess, &QProcess::readyReadStandardOutput, this, &RenderLogDialog::onOutput);
    connect(mProcess, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &RenderLogDialog::onFinished);
    mProcess->start(renderTool(), arguments);
    if (!mProcess->waitForStarted(10000)) {
        const QString why = mProcess->errorString();
        delete mProcess;
        mProcess = nullptr;
        emit renderFinished(false, tr("%1 does not start: %2").arg(renderTool(), why));
        return false;
    }
    mRenderButton->setEnabled(false);
    // Modal to this dialog only: the instrument stays playable.
    mProgress = new QProgressDialog(tr("Rendering %1…").arg(QFileInfo(mLog->text()).fileName()),
                                    tr("Cancel"), 0, 1000, this);
    mProgress->setObjectName(QStringLiteral("renderProgress"));
    mProgress->setWindowModality(Qt::WindowModal);
    mProgress->setMinimumDuration(0);
    mProgress->setAutoClose(false);
    mProgress->setAutoReset(false);
    connect(mProgress, &QProgressDialog::canceled, this, [this] {
        if (mProcess) {
            mCancelled = true;
            mProcess->terminate();
        }
    });
    mProgress->show();
    return true;
}

void RenderLogDialog::onOutput()
{
    while (mProcess && mProcess->canReadLine()) {
        const QByteArray line = mProcess->readLine().trimmed();
        if (line.startsWith("progress ") && mProgress) {
            mProgress->setValue(line.mid(9).toInt());
        }
    }
}

void RenderLogDialog::onFinished(int exitCode, QProcess::ExitStatus status)
{
    const QString errors = QString::fromLocal8Bit(mProcess->readAllStandardError()).trimmed();
    mProcess->deleteLater();
    mProcess = nullptr;
    mRenderButton->setEnabled(true);
    if (mProgress) {
        mProgress->close();
        mProgress->deleteLater();
    }
    const bool ok = !mCancelled && status == QProcess::NormalExit && exitCode == 0;
    const QString message = ok           ? tr("Rendered %1.").arg(mOutput->text())
                            : mCancelled ? tr("The render was cancelled; no file was written.")
                                         : tr("The log could not be rendered.\n\n%1").arg(errors);
    if (!mCancelled) {
        auto* box = new QMessageBox(ok ? QMessageBox::Information : QMessageBox::Warning,
                                    windowTitle(), message, QMessageBox::Ok, this);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(Qt::NonModal);
        box->show();
    }
    emit renderFinished(ok, message);
}
