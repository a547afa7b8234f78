#pragma once

#include <esputility/esputility_global.h>

#include <QDialog>

#include <memory>

class Ui_FlashTypeSelector;

// Asks which components of an upgrade to write. The caller enables only the components its
// scatter file holds and reads the check states after an accept.
class ESPUTILITY_EXPORT FlashTypeSelector : public QDialog
{
    Q_OBJECT

public:
    explicit FlashTypeSelector(QWidget *parent = nullptr);
    ~FlashTypeSelector() override;

    bool firmwareEnabled() const;
    bool applicationEnabled() const;
    // Disabling also unchecks, so a disabled component never reads as chosen.
    void setFirmwareEnabled(bool enabled);
    void setApplicationEnabled(bool enabled);

    bool firmwareChecked() const;
    bool applicationChecked() const;
    void setFirmwareChecked(bool checked);
    void setApplicationChecked(bool checked);

private:
    std::unique_ptr<Ui_FlashTypeSelector> ui;
};
