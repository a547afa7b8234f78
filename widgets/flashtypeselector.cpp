#include "widgets/flashtypeselector.h"

#include "ui_flashtypeselector.h"

namespace {

void enableCheck(QCheckBox *check, bool enabled)
{
    check->setEnabled(enabled);
    if (!enabled)
        check->setChecked(false);
}

} // namespace

FlashTypeSelector::FlashTypeSelector(QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui_FlashTypeSelector>())
{
    ui->setupUi(this);
}

FlashTypeSelector::~FlashTypeSelector() = default;

bool FlashTypeSelector::firmwareEnabled() const
{
    return ui->firmwareCheck->isEnabled();
}

bool FlashTypeSelector::applicationEnabled() const
{
    return ui->applicationCheck->isEnabled();
}

void FlashTypeSelector::setFirmwareEnabled(bool enabled)
{
    enableCheck(ui->firmwareCheck, enabled);
}

void FlashTypeSelector::setApplicationEnabled(bool enabled)
{
    enableCheck(ui->applicationCheck, enabled);
}

bool FlashTypeSelector::firmwareChecked() const
{
    return ui->firmwareCheck->isChecked();
}

bool FlashTypeSelector::applicationChecked() const
{
    return ui->applicationCheck->isChecked();
}

void FlashTypeSelector::setFirmwareChecked(bool checked)
{
    ui->firmwareCheck->setChecked(checked);
}

void FlashTypeSelector::setApplicationChecked(bool checked)
{
    ui->applicationCheck->setChecked(checked);
}
