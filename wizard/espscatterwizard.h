#pragma once

#include <esputility/esputility_global.h>

#include <QDialog>
#include <QJsonArray>
#include <QJsonObject>

#include <memory>

class Ui_EspScatterWizard;

// Composes a scatter object region by region: the regions of flash to read back, each with its
// type, start, size and file name. The result holds only a "sections" array.
class ESPUTILITY_EXPORT EspScatterWizard : public QDialog
{
    Q_OBJECT

public:
    explicit EspScatterWizard(QWidget *parent = nullptr);
    ~EspScatterWizard() override;

    // {"sections": [...]} once Finish accepted the dialog; empty otherwise.
    QJsonObject scatter() const { return m_scatter; }

private slots:
    void on_backButton_clicked();
    void on_nextButton_clicked();
    void on_finishButton_clicked();
    void on_resetButton_clicked();

private:
    void selfReset();
    void setupCurrentSection(const QJsonObject &section);
    bool validateCurrentSection(QString *error);
    QJsonObject getCurrentSection() const;
    void showValidationError(const QString &error);

    std::unique_ptr<Ui_EspScatterWizard> ui;
    QJsonObject m_scatter;
    QJsonArray m_sections;
};
