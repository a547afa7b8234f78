<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru" sourcelanguage="en">
<context>
    <name>ESPFlasher</name>
    <message>
        <location filename="../../flasher/espflasher.ui" line="+14"/>
        <source>Brimcote ESP Utility</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+15"/>
        <source>Connection</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Serial Port:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Refresh the list of available serial ports</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Baud Rate:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+44"/>
        <location filename="../../flasher/espflasher.cpp" line="+282"/>
        <source>Connect</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+22"/>
        <source>ESP Info</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Chip ID:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+17"/>
        <source>MAC:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Flash ID:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+25"/>
        <source>Loader</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Scatter File:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Select Scatter File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <source>Flash Loader:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+17"/>
        <source>Select Loader Stub File</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+29"/>
        <source>Active</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Type</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Start Address</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>End Address</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Source</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+23"/>
        <source>Create a package from the current scatter file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Erase the ESP flash memory (the selected file region, the specified region or the entire flash)
To erase the entire flash, input 0x911 when asked to select the address/size.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+24"/>
        <source>Compute MD5 of the flash contents</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+23"/>
        <source>Construct a scatter file and download content from the ESP flash memory according to the scatter file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+30"/>
        <source>Start writing the selected files to the ESP flash memory</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Flash</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+16"/>
        <source>Utility Log</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../flasher/espflasher.cpp" line="-126"/>
        <source>Connecting to %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+24"/>
        <source>Select port</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+0"/>
        <source>%1 port:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+18"/>
        <source>Flasher error: </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+49"/>
        <source>Unknown command %1 finished</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>UBoot operation %1 (%2) finished with error</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>UBoot operation failure.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Connected to ESP UBoot via %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Disconnect</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Closed connection to %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Connection closed.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Chip could not be identified</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Retrieved chip info</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+12"/>
        <source>Upgrade cancelled.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The tool will be closed</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+37"/>
        <location line="+18"/>
        <location line="+22"/>
        <source>Select scatter file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-39"/>
        <source>Packages and Scatter files</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+54"/>
        <source>Select Flash Loader</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Elf files (*.elf)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+22"/>
        <source>No package is open</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+137"/>
        <source>Erase %1 region</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Verify %1 region</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+68"/>
        <source>There is no firmware files in the current scatter - using guessed flash memory size %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>There is no firmware files in the current scatter - cannot detect flash memory size!</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+9"/>
        <source>The operation is not supported</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Save Package As</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>ZIP packages (*.zip)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+21"/>
        <location line="+5"/>
        <source>Create Package</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-4"/>
        <source>Package Description:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Remove FF&apos;s from the end of application images to save space?</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../flasher/esppackagewriter.cpp" line="+66"/>
        <source>No package is open for writing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+14"/>
        <location line="+176"/>
        <source>File %1 is not writable: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-130"/>
        <source>Stub file could not be copied: %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+62"/>
        <location line="+54"/>
        <source>File %1 could not be copied: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="-31"/>
        <source>Saved %1 bytes from %2 (removed trailing FF&apos;s)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+48"/>
        <source>Created zip package in %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../flasher/scatterloader.cpp" line="+46"/>
        <source>%1 is not a valid scatter file: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+12"/>
        <source>Package %1 is invalid and cannot be opened</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+9"/>
        <source>scatter.txt not found in package %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>scatter.txt from package %1 cannot be read</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>%1 could not be read: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+11"/>
        <source>%1 package is invalid: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Loaded package %1: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../flasher/scattervalidator.cpp" line="+17"/>
        <source>Firmware</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+1"/>
        <source>Application</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+11"/>
        <source>The mandatory flash loader file is missing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+32"/>
        <source>File %1 cannot be read</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+27"/>
        <source>The package is corrupted (near file %1)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>File %1 within the package cannot be read (%2)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+21"/>
        <source>Parse scatter file</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+44"/>
        <source>This scatter file belongs to a different chip (%1 vs %2)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+22"/>
        <source>This scatter file does not specify a flash loader, but should. Or the flash loader file (%1) is missing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+21"/>
        <source>This scatter file is invalid (no section definitions present)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+15"/>
        <source>File %1 (%2) does not exist</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Section %1 address %2 is invalid</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+22"/>
        <source>Mandatory firmware options are missing</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+11"/>
        <source>Skip unknown scatter section %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+35"/>
        <source>The data within the package is corrupted (saved md5 %1 does not match the computed one %2 for file %3)</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Section %1 is missing an md5 checksum. Proceed?&lt;br&gt;Current md5: %2</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>No saved checksum for %1</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Proceeding without checksum verification for %1 as per users request</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../flasher/scatterwriter.cpp" line="+77"/>
        <source>Cannot write to %1: %2</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>ESPToolWorker</name>
    <message>
        <location filename="../../worker/esptoolworker.cpp" line="+42"/>
        <source>connect</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>disconnect</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>load stub</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>get info</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>write firmware</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>write data</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>read data</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>erase flash</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>flash md5</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>unknown</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>EspScatterWizard</name>
    <message>
        <location filename="../../wizard/espscatterwizard.ui" line="+14"/>
        <source>Scatter File Composer</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+16"/>
        <source>This wizard will help you compose a &lt;b&gt;scatter file&lt;/b&gt;, describing the flash memory map. This file is needed both for flashing the ESP flash chip (so that the tool knows where to place the files) and for reading.&lt;br&gt;Click &amp;quot;Begin&amp;quot; to start defining the flash regions to be read and their types.&lt;br&gt;Click &amp;quot;Next&amp;quot; to define a new region, click &amp;quot;Back&amp;quot; to discard the current and edit the previously defined region, click &amp;quot;Finish&amp;quot; to exit the wizard and start reading the flash.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+20"/>
        <source>Type:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Firmware</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+5"/>
        <source>Application</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Start Address:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>End Address</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The flash region will start at the &apos;&lt;i&gt;Start Address&lt;/i&gt;&apos; and end at (&lt;i&gt;not including&lt;/i&gt;) the &apos;&lt;i&gt;End Adderss&lt;/i&gt;&apos;&lt;br&gt;
Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>Size</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>The flash region will start at the &apos;&lt;i&gt;Start Address&lt;/i&gt;&apos; and occupy &apos;&lt;i&gt;Size&lt;/i&gt;&apos; bytes (i.e. &apos;End Address&apos; = &apos;Start Address + Size&apos;)&lt;br&gt;
Accepted format:&lt;ul&gt;&lt;li&gt;decimal (12345)&lt;/li&gt;&lt;li&gt;octal (01234)&lt;/li&gt;&lt;li&gt;hexadecimal (0x123EF)&lt;/li&gt;&lt;li&gt;decimal with &lt;b&gt;kb&lt;/b&gt; / &lt;b&gt;mb&lt;/b&gt; suffix&lt;/li&gt;&lt;/ul&gt;</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+8"/>
        <source>File Name:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>By default, the files will be placed in the same directory with the scatter file.</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>&lt;b&gt;.img&lt;/b&gt; extension will be automatically appended if not present</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+42"/>
        <source>Reset</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Forget the current configuration and start from scratch</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+23"/>
        <source>&lt;Back</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Discard the current section and return to the previous one</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Next&gt;</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <source>Add the current configuration to the list and proceed to the next one</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <location filename="../../wizard/espscatterwizard.cpp" line="+54"/>
        <source>Begin</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+3"/>
        <location filename="../../wizard/espscatterwizard.cpp" line="+1"/>
        <source>Start creating section confirurations</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location filename="../../wizard/espscatterwizard.cpp" line="+21"/>
        <source>Start address %1 is invalid</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>File name cannot be empty</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>End address %1 is invalid</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>End address is smaller than Start address</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Size %1 is invalid</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+4"/>
        <source>Size parameter must be positive</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+59"/>
        <source>Finish</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+2"/>
        <source>Add the current configuration to the list and close the wizard</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>FlashTypeSelector</name>
    <message>
        <location filename="../../widgets/flashtypeselector.ui" line="+14"/>
        <source>Components</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+6"/>
        <source>Select upgrade components:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+7"/>
        <source>Firmware</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <location line="+10"/>
        <source>Application</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
