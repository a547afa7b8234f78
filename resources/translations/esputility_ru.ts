<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru" sourcelanguage="en">
<context>
    <name>ESPFlasher</name>
    <message>
        <location filename="../../flasher/espflasher.ui" line="+14"/>
        <source>Brimcote ESP Utility</source>
        <translation>Утилита Brimcote ESP</translation>
    </message>
    <message>
        <location line="+15"/>
        <source>Connection</source>
        <translation>Подключение</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Serial Port:</source>
        <translation>Последовательный порт:</translation>
    </message>
    <message>
        <location line="+26"/>
        <source>Refresh the list of available serial ports</source>
        <translation>Обновить список доступных последовательных портов</translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Baud Rate:</source>
        <translation>Скорость (бод):</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The line rate once the flash loader runs; connecting always starts at 115200 baud</source>
        <translation>Скорость линии после запуска загрузчика флеш-памяти; подключение всегда начинается на 115200 бод</translation>
    </message>
    <message>
        <location line="+52"/>
        <source>Reset into boot loader</source>
        <translation>Сброс в загрузчик</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Reset the board into its boot loader through DTR/RTS before connecting, and into the new firmware after an upgrade.
Turn it off for a board wired to a programming jig that is put into boot mode by hand.</source>
        <translation>Перед подключением сбрасывать плату в загрузчик через DTR/RTS, а после обновления — в новую прошивку.
Отключите для платы в программаторе, которую переводят в режим загрузки вручную.</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Skip unchanged blocks</source>
        <translation>Пропускать неизменённые блоки</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Compare the flash with the image per 64 KiB block and write only the blocks that differ.
Turn it off to write everything.</source>
        <translation>Сравнивать флеш-память с образом блоками по 64 КиБ и записывать только отличающиеся блоки.
Отключите, чтобы записывать всё.</translation>
    </message>
    <message>
        <location line="+11"/>
        <location filename="../../flasher/espflasher.cpp" line="+476"/>
        <location line="+34"/>
        <source>Connect</source>
        <translation>Подключить</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>ESP Info</source>
        <translation>Сведения об ESP</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Chip ID:</source>
        <translation>ID чипа:</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>MAC:</source>
        <translation>MAC:</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Flash ID:</source>
        <translation>ID флеш-памяти:</translation>
    </message>
    <message>
        <location line="+25"/>
        <source>Loader</source>
        <translation>Загрузчик</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Scatter File:</source>
        <translation>Файл разметки:</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Select Scatter File</source>
        <translation>Выбрать файл разметки</translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Flash Loader:</source>
        <translation>Загрузчик флеш-памяти:</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Select Loader Stub File</source>
        <translation>Выбрать файл загрузчика флеш-памяти</translation>
    </message>
    <message>
        <location line="+29"/>
        <source>Active</source>
        <translation>Активно</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Type</source>
        <translation>Тип</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Start Address</source>
        <translation>Начальный адрес</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>End Address</source>
        <translation>Конечный адрес</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Source</source>
        <translation>Источник</translation>
    </message>
    <message>
        <location line="+23"/>
        <source>Create a package from the current scatter file</source>
        <translation>Создать пакет из текущего файла разметки</translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Erase the ESP flash memory (the selected file region, the specified region or the entire flash)
To erase the entire flash, input 0x911 when asked to select the address/size.</source>
        <translation>Стереть флеш-память ESP (область выбранного файла, заданную область или всю флеш-память)
Чтобы стереть всю флеш-память, введите 0x911 в ответ на запрос адреса/размера.</translation>
    </message>
    <message>
        <location line="+24"/>
        <source>Compute MD5 of the flash contents</source>
        <translation>Вычислить MD5 содержимого флеш-памяти</translation>
    </message>
    <message>
        <location line="+23"/>
        <source>Construct a scatter file and download content from the ESP flash memory according to the scatter file</source>
        <translation>Составить файл разметки и считать по нему содержимое флеш-памяти ESP</translation>
    </message>
    <message>
        <location line="+30"/>
        <source>Start writing the selected files to the ESP flash memory</source>
        <translation>Начать запись выбранных файлов во флеш-память ESP</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Flash</source>
        <translation>Прошить</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Utility Log</source>
        <translation>Журнал</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="-201"/>
        <source>Connecting to %1</source>
        <translation>Подключение к %1</translation>
    </message>
    <message>
        <location line="+40"/>
        <source>Select port</source>
        <translation>Выбор порта</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>%1 port:</source>
        <translation>Порт %1:</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="+328"/>
        <source>Flasher error: </source>
        <translation>Ошибка прошивки: </translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="+88"/>
        <source>Unknown command %1 finished</source>
        <translation>Завершилась неизвестная команда %1</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="+41"/>
        <source>UBoot operation %1 (%2) finished with error</source>
        <translation>Операция UBoot %1 (%2) завершилась с ошибкой</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="+12"/>
        <source>UBoot operation failure.</source>
        <translation>Сбой операции UBoot.</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="-63"/>
        <source>Connected to ESP UBoot via %1</source>
        <translation>Установлено подключение к ESP UBoot через %1</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="+44"/>
        <source>Disconnect</source>
        <translation>Отключить</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="+3"/>
        <source>Closed connection to %1</source>
        <translation>Соединение с %1 закрыто</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="-32"/>
        <location line="+58"/>
        <source>Connection closed.</source>
        <translation>Соединение закрыто.</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="+77"/>
        <source>Chip could not be identified</source>
        <translation>Не удалось определить чип</translation>
    </message>
    <message>
        <location line="-73"/>
        <source>Retrieved chip info</source>
        <translation>Сведения о чипе получены</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="+23"/>
        <source>Upgrade cancelled.</source>
        <translation>Обновление отменено.</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>
The tool will be closed</source>
        <translation>
Программа будет закрыта</translation>
    </message>
    <message>
        <location line="+23"/>
        <source>Cannot load the stub</source>
        <translation>Не удалось загрузить загрузчик</translation>
    </message>
    <message>
        <location line="+24"/>
        <location line="+12"/>
        <location line="+9"/>
        <location line="+104"/>
        <location line="+498"/>
        <location line="+10"/>
        <source>Flash Loader</source>
        <translation>Загрузчик флеш-памяти</translation>
    </message>
    <message>
        <location line="-632"/>
        <location line="+125"/>
        <source>The device is busy. Please try again later.</source>
        <translation>Устройство занято. Повторите попытку позже.</translation>
    </message>
    <message>
        <location line="-116"/>
        <source>The stub file %1 is not in the package</source>
        <translation>Файла загрузчика %1 нет в пакете</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>The stub file %1 cannot be read</source>
        <translation>Не удаётся прочитать файл загрузчика %1</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Flash loader file %1 does not exist!</source>
        <translation>Файл загрузчика флеш-памяти %1 не существует!</translation>
    </message>
    <message>
        <location line="+15"/>
        <source>Stub loader is needed for this operation. Load a scatter file first</source>
        <translation>Для этой операции нужен загрузчик. Сначала загрузите файл разметки</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Waiting for the flash loader</source>
        <translation>Ожидание загрузчика флеш-памяти</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Must load a stub first.</source>
        <translation>Сначала нужно загрузить загрузчик.</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Failed to load the stub</source>
        <translation>Загрузчик не загрузился</translation>
    </message>
    <message>
        <location line="+583"/>
        <source>Packages, Scatter files and Images</source>
        <translation>Пакеты, файлы разметки и образы</translation>
    </message>
    <message>
        <location line="+66"/>
        <source>%1 is empty</source>
        <translation>Файл %1 пуст</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>An image is written through a flash loader, and none was chosen</source>
        <translation>Образ записывается через загрузчик флеш-памяти, но загрузчик не выбран</translation>
    </message>
    <message>
        <location line="+37"/>
        <source>The flash options in the header of %1 have no names that a firmware write keeps; it is written unchanged, as a user application</source>
        <translation>Для параметров флеш-памяти в заголовке %1 нет названий, которые сохранит запись прошивки; файл записывается без изменений, как пользовательское приложение</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Loaded image %1 for 0x%2 as a user application</source>
        <translation>Загружен образ %1 для адреса 0x%2 как пользовательское приложение</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Loaded firmware image %1 for 0x%2 (flash memory size %3, mode %4, frequency %5)</source>
        <translation>Загружен образ прошивки %1 для адреса 0x%2 (размер флеш-памяти %3, режим %4, частота %5)</translation>
    </message>
    <message>
        <location line="+14"/>
        <location line="+20"/>
        <source>Flash Image</source>
        <translation>Запись образа</translation>
    </message>
    <message>
        <location line="-19"/>
        <source>Address to write %1 at:</source>
        <translation>Адрес записи %1:</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>%1 is not an address</source>
        <translation>%1 — не адрес</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>0x%1 is not the start of a 4 KiB flash sector</source>
        <translation>0x%1 — не начало сектора флеш-памяти размером 4 КиБ</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>%1 bytes at 0x%2 go past the end of the flash (%3 bytes)</source>
        <translation>%1 байт по адресу 0x%2 выходят за конец флеш-памяти (%3 байт)</translation>
    </message>
    <message>
        <location line="-880"/>
        <location line="+235"/>
        <source>Upgrade completed.</source>
        <translation>Обновление завершено.</translation>
    </message>
    <message>
        <location line="-487"/>
        <source>Description: %1</source>
        <translation>Описание: %1</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Manufacturer: %1</source>
        <translation>Производитель: %1</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>VID:PID: %1</source>
        <translation>Идентификаторы USB (VID:PID): %1</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Serial number: %1</source>
        <translation>Серийный номер: %1</translation>
    </message>
    <message>
        <location line="+548"/>
        <source>The flashed sections did not match at the end.</source>
        <translation>Записанные разделы в конце не совпали с флеш-памятью.</translation>
    </message>
    <message>
        <location line="+141"/>
        <source>File %1 already exists. Replace it?</source>
        <translation>Файл %1 уже существует. Заменить его?</translation>
    </message>
    <message>
        <location line="+140"/>
        <source>Section no. %1 would be read into the scatter file %2</source>
        <translation>Секция № %1 была бы прочитана в файл разметки %2</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Sections no. %1 and %2 would be read into the same file %3</source>
        <translation>Секции № %1 и %2 были бы прочитаны в один и тот же файл %3</translation>
    </message>
    <message>
        <location line="+113"/>
        <source>File %1 is not in the package</source>
        <translation>Файла %1 нет в пакете</translation>
    </message>
    <message>
        <location line="+3"/>
        <location line="+3"/>
        <location line="+14"/>
        <source>File %1 cannot be read (%2)</source>
        <translation>Не удаётся прочитать файл %1 (%2)</translation>
    </message>
    <message>
        <location line="-502"/>
        <source>Invalid package</source>
        <translation>Недопустимый пакет</translation>
    </message>
    <message>
        <location line="+149"/>
        <source>Scatter File</source>
        <translation>Файл разметки</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>A scatter file is already loaded. Use it as a template?</source>
        <translation>Файл разметки уже загружен. Использовать его как шаблон?</translation>
    </message>
    <message>
        <location line="+65"/>
        <source>Save As</source>
        <translation>Сохранить как</translation>
    </message>
    <message>
        <location line="+0"/>
        <source>Scatter files (*.txt)</source>
        <translation>Файлы разметки (*.txt)</translation>
    </message>
    <message>
        <location line="-41"/>
        <location line="+55"/>
        <source>Read Flash Memory</source>
        <translation>Чтение флеш-памяти</translation>
    </message>
    <message>
        <location line="-54"/>
        <source>File with the same name already exists. Please choose another name:</source>
        <translation>Файл с таким именем уже существует. Выберите другое имя:</translation>
    </message>
    <message>
        <location line="+107"/>
        <location line="+14"/>
        <source>Save Scatter</source>
        <translation>Сохранение разметки</translation>
    </message>
    <message>
        <location line="-14"/>
        <source>Save the scatter file?</source>
        <translation>Сохранить файл разметки?</translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Create a distribution package?</source>
        <translation>Создать пакет для распространения?</translation>
    </message>
    <message>
        <location line="+93"/>
        <source>Erase Flash Memory</source>
        <translation>Стирание флеш-памяти</translation>
    </message>
    <message>
        <location line="-77"/>
        <source>Region [address:size]:</source>
        <translation>Область [адрес:размер]:</translation>
    </message>
    <message>
        <location line="-583"/>
        <source>The connection to %1 was lost</source>
        <translation>Соединение с %1 потеряно</translation>
    </message>
    <message>
        <location line="+668"/>
        <source>Verify Flash Memory Contents</source>
        <translation>Проверка содержимого флеш-памяти</translation>
    </message>
    <message>
        <location line="+32"/>
        <source>Start address %1 of the section no. %2 is invalid</source>
        <translation>Начальный адрес %1 секции № %2 недопустим</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>End address %1 of the section no. %2 is invalid</source>
        <translation>Конечный адрес %1 секции № %2 недопустим</translation>
    </message>
    <message>
        <location line="+89"/>
        <location line="+19"/>
        <location line="+22"/>
        <location line="+16"/>
        <location line="+5"/>
        <location line="+8"/>
        <source>Select scatter file</source>
        <translation>Выбор файла разметки</translation>
    </message>
    <message>
        <location line="-72"/>
        <source>Packages and Scatter files</source>
        <translation>Пакеты и файлы разметки</translation>
    </message>
    <message>
        <location line="+171"/>
        <source>Select Flash Loader</source>
        <translation>Выбор загрузчика флеш-памяти</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Elf files (*.elf)</source>
        <translation>Файлы ELF (*.elf)</translation>
    </message>
    <message>
        <location line="+23"/>
        <source>No package is open</source>
        <translation>Пакет не открыт</translation>
    </message>
    <message>
        <location line="+146"/>
        <source>Erase %1 region</source>
        <translation>Стереть область %1</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Verify %1 region</source>
        <translation>Проверить область %1</translation>
    </message>
    <message>
        <location filename="../../flasher/flashplan.cpp" line="-283"/>
        <source>Start loading stub from %1</source>
        <translation>Загрузка загрузчика из %1</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>There is no firmware files in the current scatter - using guessed flash memory size %1</source>
        <translation>В текущей разметке нет файлов микропрограммы - используется предполагаемый размер флеш-памяти %1</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>There is no firmware files in the current scatter - cannot detect flash memory size!</source>
        <translation>В текущей разметке нет файлов микропрограммы - размер флеш-памяти определить невозможно!</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Start writing user application from %1 to 0x%2 (max size %3)</source>
        <translation>Запись пользовательского приложения из %1 по адресу 0x%2 (максимальный размер %3)</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Start writing firmware from %1 to 0x%2 (flash memory size %3, mode %4, frequency %5)</source>
        <translation>Запись прошивки из %1 по адресу 0x%2 (размер флеш-памяти %3, режим %4, частота %5)</translation>
    </message>
    <message>
        <location line="+12"/>
        <source>Application has been successfully flashed.</source>
        <translation>Приложение успешно записано.</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Firmware has been successfully flashed.</source>
        <translation>Прошивка успешно записана.</translation>
    </message>
    <message>
        <location line="+24"/>
        <source>the file is no firmware image any more</source>
        <translation>файл больше не является образом прошивки</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Comparing the written sections with the flash once more</source>
        <translation>Повторное сравнение записанных разделов с флеш-памятью</translation>
    </message>
    <message>
        <location line="+29"/>
        <source>%1 at 0x%2 cannot be checked: %3</source>
        <translation>%1 по адресу 0x%2 невозможно проверить: %3</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>%1 at 0x%2 still matches (MD5: %3)</source>
        <translation>%1 по адресу 0x%2 по-прежнему совпадает (MD5: %3)</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>%1 at 0x%2 has changed since it was written (MD5: %3 instead of %4)</source>
        <translation>%1 по адресу 0x%2 изменился после записи (MD5: %3 вместо %4)</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The flash run failed: %1 of %2 written section(s) no longer match</source>
        <translation>Прошивка не удалась: %1 из %2 записанных разделов больше не совпадают</translation>
    </message>
    <message>
        <location line="+15"/>
        <source>Start reading %1 from region [0x%2:0x%3]</source>
        <translation>Чтение %1 из области [0x%2:0x%3]</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Flash memory section has been successfully read.</source>
        <translation>Секция флеш-памяти успешно прочитана.</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Extracted flash parameters: %1 / %2 / %3</source>
        <translation>Извлечённые параметры флеш-памяти: %1 / %2 / %3</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Firmware read is invalid - cannot parse %1</source>
        <translation>Прочитанная прошивка недопустима - не удаётся разобрать %1</translation>
    </message>
    <message>
        <location line="+31"/>
        <source>Cannot verify - firmware file %1 is invalid</source>
        <translation>Проверка невозможна - файл прошивки %1 недопустим</translation>
    </message>
    <message>
        <location line="+26"/>
        <source>MD5: </source>
        <translation>Сумма MD5: </translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Checksum verified (MD5: %1)</source>
        <translation>Контрольная сумма совпала (MD5: %1)</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Checksum verification failed (%1 vs %2)</source>
        <translation>Контрольная сумма не совпала (%1 и %2)</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>MD5 could not be computed</source>
        <translation>Не удалось вычислить MD5</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Flash stub loaded</source>
        <translation>Загрузчик загружен</translation>
    </message>
    <message>
        <location line="+9"/>
        <source>Flash memory has been erased.</source>
        <translation>Флеш-память стёрта.</translation>
    </message>
    <message>
        <location line="+38"/>
        <source>Skipping section %1</source>
        <translation>Пропуск секции %1</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Scatter file saved to %1</source>
        <translation>Файл разметки сохранён в %1</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="+72"/>
        <source>The operation is not supported</source>
        <translation>Операция не поддерживается</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Save Package As</source>
        <translation>Сохранить пакет как</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>ZIP packages (*.zip)</source>
        <translation>Пакеты ZIP (*.zip)</translation>
    </message>
    <message>
        <location line="+21"/>
        <location line="+5"/>
        <source>Create Package</source>
        <translation>Создание пакета</translation>
    </message>
    <message>
        <location line="-4"/>
        <source>Package Description:</source>
        <translation>Описание пакета:</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Remove FF&apos;s from the end of application images to save space?</source>
        <translation>Удалить байты FF в конце образов приложений для экономии места?</translation>
    </message>
    <message>
        <location filename="../../flasher/esppackagewriter.cpp" line="+34"/>
        <source>Package %1 would replace its source file %2</source>
        <translation>Пакет %1 заменил бы собственный исходный файл %2</translation>
    </message>
    <message>
        <location line="+45"/>
        <source>No package is open for writing</source>
        <translation>Нет пакета, открытого для записи</translation>
    </message>
    <message>
        <location line="+28"/>
        <source>File %1 is not writable: %2</source>
        <translation>Файл %1 недоступен для записи: %2</translation>
    </message>
    <message>
        <location line="+61"/>
        <source>Stub file could not be copied: %1</source>
        <translation>Не удалось скопировать файл загрузчика: %1</translation>
    </message>
    <message>
        <location line="+85"/>
        <source>File %1 could not be copied: %2</source>
        <translation>Не удалось скопировать файл %1: %2</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Section file %1 cannot be packed: the package keeps its own %2 under that name</source>
        <translation>Файл раздела %1 нельзя упаковать: под этим именем пакет хранит собственный %2</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Section files %1 and %2 would both be stored as %3</source>
        <translation>Файлы разделов %1 и %2 были бы оба сохранены как %3</translation>
    </message>
    <message>
        <location line="+28"/>
        <source>Saved %1 bytes from %2 (removed trailing FF&apos;s)</source>
        <translation>Сэкономлено байт: %1 в %2 (удалены конечные FF)</translation>
    </message>
    <message>
        <location line="+49"/>
        <source>Created zip package in %1</source>
        <translation>Создан ZIP-пакет %1</translation>
    </message>
    <message>
        <location filename="../../flasher/scatterloader.cpp" line="+46"/>
        <source>%1 is not a valid scatter file: %2</source>
        <translation>%1 не является корректным файлом разметки: %2</translation>
    </message>
    <message>
        <location line="+13"/>
        <source>Package %1 unpacks to %2 bytes, more than the flash memory can hold (%3 bytes)</source>
        <translation>Пакет %1 распаковывается в %2 байт — больше, чем вмещает флеш-память (%3 байт)</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Package %1 is invalid and cannot be opened</source>
        <translation>Пакет %1 повреждён и не может быть открыт</translation>
    </message>
    <message>
        <location line="+13"/>
        <source>scatter.txt not found in package %1</source>
        <translation>В пакете %1 не найден scatter.txt</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>scatter.txt from package %1 cannot be read</source>
        <translation>Не удаётся прочитать scatter.txt из пакета %1</translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="-387"/>
        <location filename="../../flasher/scatterloader.cpp" line="+8"/>
        <source>%1 could not be read: %2</source>
        <translation>Не удалось прочитать %1: %2</translation>
    </message>
    <message>
        <location filename="../../flasher/scatterloader.cpp" line="+11"/>
        <source>%1 package is invalid: %2</source>
        <translation>Пакет %1 некорректен: %2</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Loaded package %1: %2</source>
        <translation>Загружен пакет %1: %2</translation>
    </message>
    <message>
        <location filename="../../flasher/scattervalidator.cpp" line="+19"/>
        <source>Firmware</source>
        <translation>Микропрограмма</translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Application</source>
        <translation>Приложение</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>The mandatory flash loader file is missing</source>
        <translation>Отсутствует обязательный файл загрузчика флеш-памяти</translation>
    </message>
    <message>
        <location line="+61"/>
        <source>File %1 cannot be read</source>
        <translation>Не удаётся прочитать файл %1</translation>
    </message>
    <message>
        <location line="+25"/>
        <source>The package is corrupted (near file %1)</source>
        <translation>Пакет повреждён (возле файла %1)</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>File %1 within the package cannot be read (%2)</source>
        <translation>Не удаётся прочитать файл %1 из пакета (%2)</translation>
    </message>
    <message>
        <location line="+21"/>
        <source>Parse scatter file</source>
        <translation>Разбор файла разметки</translation>
    </message>
    <message>
        <location line="+44"/>
        <source>This scatter file belongs to a different chip (%1 vs %2)</source>
        <translation>Этот файл разметки относится к другому чипу (%1, а подключён %2)</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>This scatter file does not specify a flash loader, but should. Or the flash loader file (%1) is missing</source>
        <translation>В этом файле разметки не указан загрузчик флеш-памяти, хотя должен быть. Либо отсутствует файл загрузчика (%1)</translation>
    </message>
    <message>
        <location line="+21"/>
        <source>This scatter file is invalid (no section definitions present)</source>
        <translation>Этот файл разметки некорректен (нет описаний секций)</translation>
    </message>
    <message>
        <location line="+17"/>
        <source>File %1 (%2) does not exist</source>
        <translation>Файл %1 (%2) не существует</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Section %1 address %2 is invalid</source>
        <translation>Секция %1: некорректный адрес %2</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>Mandatory firmware options are missing</source>
        <translation>Отсутствуют обязательные параметры микропрограммы</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Firmware %1 has invalid flash options (mode %2, size %3, frequency %4)</source>
        <translation>Недопустимые параметры флеш-памяти прошивки %1 (режим %2, размер %3, частота %4)</translation>
    </message>
    <message>
        <location line="+13"/>
        <source>Skip unknown scatter section %1</source>
        <translation>Пропуск неизвестной секции разметки %1</translation>
    </message>
    <message>
        <location line="+48"/>
        <source>Section %1 %2 runs past the end of its flash memory size %3</source>
        <translation>Раздел %1 %2 выходит за пределы своего размера флеш-памяти %3</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Section %1 %2 runs past the end of the chip&apos;s flash memory (%3)</source>
        <translation>Раздел %1 %2 выходит за пределы флеш-памяти микросхемы (%3)</translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Sections %1 %2 and %3 %4 overlap</source>
        <translation>Разделы %1 %2 и %3 %4 перекрываются</translation>
    </message>
    <message>
        <location line="+26"/>
        <source>Firmware %1 is set for a flash memory size of %2, but the chip has %3. Flash it anyway?</source>
        <translation>Прошивка %1 рассчитана на флеш-память размером %2, а у микросхемы %3. Всё равно записать?</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Firmware %1 is set for a flash memory size of %2, larger than the chip&apos;s %3</source>
        <translation>Прошивка %1 рассчитана на флеш-память размером %2, больше, чем у микросхемы (%3)</translation>
    </message>
    <message>
        <location line="+27"/>
        <source>The data within the package is corrupted (saved md5 %1 does not match the computed one %2 for file %3)</source>
        <translation>Данные в пакете повреждены (сохранённая сумма md5 %1 не совпадает с вычисленной %2 для файла %3)</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Section %1 is missing an md5 checksum. Proceed?&lt;br&gt;Current md5: %2</source>
        <translation>У секции %1 нет контрольной суммы md5. Продолжить?&lt;br&gt;Текущая md5: %2</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>No saved checksum for %1</source>
        <translation>Нет сохранённой контрольной суммы для %1</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Proceeding without checksum verification for %1 as per users request</source>
        <translation>Продолжение без проверки контрольной суммы для %1 по запросу пользователя</translation>
    </message>
    <message>
        <location filename="../../flasher/scatterwriter.cpp" line="+78"/>
        <source>Cannot write to %1: %2</source>
        <translation>Не удаётся записать в %1: %2</translation>
    </message>
    <message>
        <location filename="../../flasher/flashregion.cpp" line="+89"/>
        <source>Region %1 runs past the end of the flash memory (%2)</source>
        <translation>Область %1 выходит за пределы флеш-памяти (%2)</translation>
    </message>
    <message>
        <location line="+19"/>
        <source>Erased the whole flash memory</source>
        <translation>Стёрта вся флеш-память</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Erased sectors %1</source>
        <translation>Стёрты секторы %1</translation>
    </message>
    <message>
        <location line="+22"/>
        <source>Requested flash memory contents md5 for [0x%1:0x%2] (size %3)</source>
        <translation>Запрошен md5 содержимого флеш-памяти для [0x%1:0x%2] (размер %3)</translation>
    </message>
</context>
<context>
    <name>ESPToolWorker</name>
    <message>
        <location filename="../../worker/esptoolworker.cpp" line="+46"/>
        <source>connect</source>
        <translation>подключение</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>disconnect</source>
        <translation>отключение</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>load stub</source>
        <translation>загрузка загрузчика</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>get info</source>
        <translation>получение сведений</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>write firmware</source>
        <translation>запись микропрограммы</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>write data</source>
        <translation>запись данных</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>read data</source>
        <translation>чтение данных</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>erase flash</source>
        <translation>стирание флеш-памяти</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>flash md5</source>
        <translation>md5 флеш-памяти</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>unknown</source>
        <translation>неизвестная</translation>
    </message>
</context>
<context>
    <name>EspScatterWizard</name>
    <message>
        <location filename="../../wizard/espscatterwizard.ui" line="+14"/>
        <source>Scatter File Composer</source>
        <translation>Составление файла разметки</translation>
    </message>
    <message>
        <location line="+16"/>
        <source>This wizard will help you compose a &lt;b&gt;scatter file&lt;/b&gt;, describing the flash memory map. This file is needed both for flashing the ESP flash chip (so that the tool knows where to place the files) and for reading.&lt;br&gt;Click &amp;quot;Begin&amp;quot; to start defining the flash regions to be read and their types.&lt;br&gt;Click &amp;quot;Next&amp;quot; to define a new region, click &amp;quot;Back&amp;quot; to discard the current and edit the previously defined region, click &amp;quot;Finish&amp;quot; to exit the wizard and start reading the flash.</source>
        <translation>Этот мастер поможет составить &lt;b&gt;файл разметки&lt;/b&gt;, описывающий карту флеш-памяти. Этот файл нужен и для прошивки флеш-памяти ESP (чтобы программа знала, куда помещать файлы), и для чтения.&lt;br&gt;Нажмите &amp;quot;Начать&amp;quot;, чтобы перейти к описанию считываемых областей флеш-памяти и их типов.&lt;br&gt;Нажмите &amp;quot;Далее&amp;quot;, чтобы описать новую область, &amp;quot;Назад&amp;quot; - чтобы отбросить текущую и изменить предыдущую, &amp;quot;Готово&amp;quot; - чтобы закрыть мастер и начать чтение флеш-памяти.</translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Type:</source>
        <translation>Тип:</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Firmware</source>
        <translation>Микропрограмма</translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Application</source>
        <translation>Приложение</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Start Address:</source>
        <translation>Начальный адрес:</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation>Допустимый формат:&lt;ul&gt;&lt;li&gt;десятичный (12345)&lt;/li&gt;&lt;li&gt;восьмеричный (01234)&lt;/li&gt;&lt;li&gt;шестнадцатеричный (0x123EF)&lt;/li&gt;&lt;li&gt;десятичный с суффиксом &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt;&lt;/li&gt;&lt;/ul&gt;</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>End Address</source>
        <translation>Конечный адрес</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The flash region will start at the &apos;&lt;i&gt;Start Address&lt;/i&gt;&apos; and end at (&lt;i&gt;not including&lt;/i&gt;) the &apos;&lt;i&gt;End Adderss&lt;/i&gt;&apos;&lt;br&gt;
Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation>Область флеш-памяти начнётся с &apos;&lt;i&gt;Начального адреса&lt;/i&gt;&apos; и закончится на &apos;&lt;i&gt;Конечном адресе&lt;/i&gt;&apos; (&lt;i&gt;не включая его&lt;/i&gt;)&lt;br&gt;
Допустимый формат:&lt;ul&gt;&lt;li&gt;десятичный (12345)&lt;/li&gt;&lt;li&gt;восьмеричный (01234)&lt;/li&gt;&lt;li&gt;шестнадцатеричный (0x123EF)&lt;/li&gt;&lt;li&gt;десятичный с суффиксом &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt;&lt;/li&gt;&lt;/ul&gt;</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Size</source>
        <translation>Размер</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The flash region will start at the &apos;&lt;i&gt;Start Address&lt;/i&gt;&apos; and occupy &apos;&lt;i&gt;Size&lt;/i&gt;&apos; bytes (i.e. &apos;End Address&apos; = &apos;Start Address + Size&apos;)&lt;br&gt;
Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation>Область флеш-памяти начнётся с &apos;&lt;i&gt;Начального адреса&lt;/i&gt;&apos; и займёт &apos;&lt;i&gt;Размер&lt;/i&gt;&apos; байт (т. е. &apos;Конечный адрес&apos; = &apos;Начальный адрес + Размер&apos;)&lt;br&gt;
Допустимый формат:&lt;ul&gt;&lt;li&gt;десятичный (12345)&lt;/li&gt;&lt;li&gt;восьмеричный (01234)&lt;/li&gt;&lt;li&gt;шестнадцатеричный (0x123EF)&lt;/li&gt;&lt;li&gt;десятичный с суффиксом &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt;&lt;/li&gt;&lt;/ul&gt;</translation>
    </message>
    <message>
        <location line="+8"/>
        <source>File Name:</source>
        <translation>Имя файла:</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>By default, the files will be placed in the same directory with the scatter file.</source>
        <translation>По умолчанию файлы размещаются в том же каталоге, что и файл разметки.</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>&lt;b&gt;.img&lt;/b&gt; extension will be automatically appended if not present</source>
        <translation>Расширение &lt;b&gt;.img&lt;/b&gt; добавляется автоматически, если его нет</translation>
    </message>
    <message>
        <location line="+42"/>
        <source>Reset</source>
        <translation>Сброс</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Forget the current configuration and start from scratch</source>
        <translation>Забыть текущую конфигурацию и начать сначала</translation>
    </message>
    <message>
        <location line="+23"/>
        <source>&lt;Back</source>
        <translation>&lt;Назад</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Discard the current section and return to the previous one</source>
        <translation>Отбросить текущую секцию и вернуться к предыдущей</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Next&gt;</source>
        <translation>Далее&gt;</translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Add the current configuration to the list and proceed to the next one</source>
        <translation>Добавить текущую конфигурацию в список и перейти к следующей</translation>
    </message>
    <message>
        <location line="+7"/>
        <location filename="../../wizard/espscatterwizard.cpp" line="+54"/>
        <source>Begin</source>
        <translation>Начать</translation>
    </message>
    <message>
        <location line="+3"/>
        <location filename="../../wizard/espscatterwizard.cpp" line="+1"/>
        <source>Start creating section confirurations</source>
        <translation>Начать составление конфигураций секций</translation>
    </message>
    <message>
        <location filename="../../wizard/espscatterwizard.cpp" line="+21"/>
        <source>Start address %1 is invalid</source>
        <translation>Начальный адрес %1 некорректен</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>File name cannot be empty</source>
        <translation>Имя файла не может быть пустым</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>End address %1 is invalid</source>
        <translation>Конечный адрес %1 некорректен</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>End address is smaller than Start address</source>
        <translation>Конечный адрес меньше начального</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Size %1 is invalid</source>
        <translation>Размер %1 некорректен</translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Size parameter must be positive</source>
        <translation>Размер должен быть больше нуля</translation>
    </message>
    <message>
        <location line="+59"/>
        <source>Finish</source>
        <translation>Готово</translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Add the current configuration to the list and close the wizard</source>
        <translation>Добавить текущую конфигурацию в список и закрыть мастер</translation>
    </message>
</context>
<context>
    <name>FlashTypeSelector</name>
    <message>
        <location filename="../../widgets/flashtypeselector.ui" line="+14"/>
        <source>Components</source>
        <translation>Компоненты</translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Select upgrade components:</source>
        <translation>Выберите компоненты для обновления:</translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Firmware</source>
        <translation>Микропрограмма</translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Application</source>
        <translation>Приложение</translation>
    </message>
</context>
</TS>
