#include "wizard/espscatterwizard.h"

#include "ui_espscatterwizard.h"
#include "widgets/texthelpers.h"

namespace {

const QString kTypeKey = QStringLiteral("type");
const QString kAddressKey = QStringLiteral("address");
const QString kSizeKey = QStringLiteral("size");
const QString kFileKey = QStringLiteral("file");
const QString kSectionsKey = QStringLiteral("sections");
const QString kApplicationType = QStringLiteral("application");
const QString kFirmwareType = QStringLiteral("firmware");
const QString kImageSuffix = QStringLiteral(".img");

constexpr int kIntroPage = 0;
constexpr int kRegionPage = 1;
constexpr int kApplicationIndex = 1;

// Addresses the wizard fills in itself: "0x" and eight lower-case hexadecimal digits.
QString addressText(quint32 address)
{
    return QStringLiteral("0x%1").arg(address, 8, 16, QLatin1Char('0'));
}

// The first byte after a region; a wrong number reads as 0, as an empty field does.
quint32 regionEnd(const QJsonObject &section)
{
    return parseUnsignedInteger(section.value(kAddressKey).toString()) +
           parseUnsignedInteger(section.value(kSizeKey).toString());
}

} // namespace

EspScatterWizard::EspScatterWizard(QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui_EspScatterWizard>())
{
    ui->setupUi(this);
    selfReset();
}

EspScatterWizard::~EspScatterWizard() = default;

void EspScatterWizard::selfReset()
{
    m_scatter = QJsonObject();
    m_sections = QJsonArray();
    ui->resetButton->setEnabled(false);
    ui->backButton->setEnabled(false);
    ui->nextButton->setEnabled(false);
    ui->stackedWidget->setCurrentIndex(kIntroPage);
    ui->regionStartAddress->setText(QStringLiteral("0x00000000"));
    ui->finishButton->setText(tr("Begin"));
    ui->finishButton->setToolTip(tr("Start creating section confirurations"));
}

void EspScatterWizard::setupCurrentSection(const QJsonObject &section)
{
    const bool isApplication = section.value(kTypeKey).toString() == kApplicationType;
    ui->regionTypeCombo->setCurrentIndex(isApplication ? kApplicationIndex : 0);
    ui->regionStartAddress->setText(section.value(kAddressKey).toString());
    ui->regionSize->setText(section.value(kSizeKey).toString());
    ui->regionEndAddress->setText(addressText(regionEnd(section)));
    ui->regionEndAddressSel->setChecked(true);
    ui->regionFileName->setText(section.value(kFileKey).toString());
    ui->regionValuesWarning->clear();
}

bool EspScatterWizard::validateCurrentSection(QString *error)
{
    const QString startText = ui->regionStartAddress->text();
    bool ok = false;
    const quint32 start = parseUnsignedInteger(startText, &ok);
    if (!ok) {
        *error = tr("Start address %1 is invalid").arg(startText);
        return false;
    }
    if (ui->regionFileName->text().isEmpty()) {
        *error = tr("File name cannot be empty");
        return false;
    }
    if (ui->regionEndAddressSel->isChecked()) {
        const quint32 end = parseUnsignedInteger(ui->regionEndAddress->text(), &ok);
        // Kept as it has always been: the message quotes the start text, not the end text.
        if (!ok) {
            *error = tr("End address %1 is invalid").arg(startText);
            return false;
        }
        if (end < start) {
            *error = tr("End address is smaller than Start address");
            return false;
        }
        ui->regionSize->setText(QString::number(end - start));
    }
    const quint32 size = parseUnsignedInteger(ui->regionSize->text(), &ok);
    if (!ok) {
        *error = tr("Size %1 is invalid").arg(startText);
        return false;
    }
    if (size == 0) {
        *error = tr("Size parameter must be positive");
        return false;
    }
    ui->regionEndAddress->setText(QString::number(quint32(start + size)));
    if (!ui->regionFileName->text().endsWith(kImageSuffix, Qt::CaseInsensitive))
        ui->regionFileName->setText(ui->regionFileName->text() + kImageSuffix);
    return true;
}

QJsonObject EspScatterWizard::getCurrentSection() const
{
    // Values stay the texts as typed: the scatter parser reads every notation the fields accept.
    QJsonObject section;
    section.insert(kTypeKey, ui->regionTypeCombo->currentIndex() == kApplicationIndex
                                 ? kApplicationType
                                 : kFirmwareType);
    section.insert(kAddressKey, ui->regionStartAddress->text());
    section.insert(kSizeKey, ui->regionSize->text());
    section.insert(kFileKey, ui->regionFileName->text());
    return section;
}

void EspScatterWizard::showValidationError(const QString &error)
{
    ui->regionValuesWarning->setText(QStringLiteral("<font color=\"red\">") + error +
                                     QStringLiteral("</font>"));
}

void EspScatterWizard::on_backButton_clicked()
{
    if (m_sections.isEmpty()) {
        selfReset();
        return;
    }
    setupCurrentSection(m_sections.last().toObject());
    m_sections.removeLast();
}

void EspScatterWizard::on_nextButton_clicked()
{
    QString error;
    if (!validateCurrentSection(&error)) {
        showValidationError(error);
        return;
    }
    const QJsonObject confirmed = getCurrentSection();
    m_sections.append(confirmed);
    setupCurrentSection(QJsonObject{{kAddressKey, addressText(regionEnd(confirmed))}});
    ui->backButton->setEnabled(true);
}

void EspScatterWizard::on_finishButton_clicked()
{
    if (ui->stackedWidget->currentIndex() == kIntroPage) {
        setupCurrentSection(QJsonObject{{kAddressKey, QStringLiteral("0x00000000")},
                                        {kSizeKey, QStringLiteral("0")}});
        ui->nextButton->setEnabled(true);
        ui->stackedWidget->setCurrentIndex(kRegionPage);
        ui->resetButton->setEnabled(true);
        ui->finishButton->setText(tr("Finish"));
        ui->finishButton->setToolTip(
            tr("Add the current configuration to the list and close the wizard"));
        return;
    }
    QString error;
    if (!validateCurrentSection(&error)) {
        showValidationError(error);
        return;
    }
    m_sections.append(getCurrentSection());
    m_scatter.insert(kSectionsKey, m_sections);
    accept();
}

void EspScatterWizard::on_resetButton_clicked()
{
    selfReset();
}
