# What the Windows Installer package needs and wixl cannot express. packaging/msi.sh runs each line as a
# statement of Windows Installer's SQL; VERSION stands for the version, with four numbers.

# Both programs have versions: without them, any file that is there would count as newer. A versioned file
# has no hash.
UPDATE `File` SET `Version` = 'VERSION', `Language` = '1033' WHERE `File` = 'nvksprovider.dll'
UPDATE `File` SET `Version` = 'VERSION', `Language` = '1033' WHERE `File` = 'keywarden.exe'
DELETE FROM `MsiFileHash` WHERE `File_` = 'nvksprovider.dll'
DELETE FROM `MsiFileHash` WHERE `File_` = 'keywarden.exe'

# The product's folder is in the machine's PATH. "=-*": set by the installation, removed by the removal, of
# the machine.
CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE, `Component_` CHAR(72) NOT NULL PRIMARY KEY `Environment`)
INSERT INTO `Environment` (`Environment`, `Name`, `Value`, `Component_`) VALUES ('Path', '=-*PATH', '[~];[INSTALLDIR]', 'Tool')
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveEnvironmentStrings', 3300)
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('WriteEnvironmentStrings', 5200)

# An upgrade removes the old version first, in the same transaction: if the new one fails, the old one stays.
UPDATE `InstallExecuteSequence` SET `Sequence` = 1501 WHERE `Action` = 'RemoveExistingProducts'

# The properties of the configuration reach the part that has the rights, after the question for them.
UPDATE `Property` SET `Value` = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;P11FILE;MODE;LOGTYPES;LOGSTORE;LOGROTATE' WHERE `Property` = 'SecureCustomProperties'

# Types of actions: 51 sets a property. 18 runs an installed program; with 1024 later, in the transaction;
# with 256 if that is rolled back; with 2048 as the system, not as the user; with 64 its failure does not
# count.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('SetLocation', 51, 'ARPINSTALLLOCATION', '[INSTALLDIR]')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('SetLocation', 'NOT Installed', 1010)

# The arguments of "keywarden init", only for a new version: a repair can be started by users without
# rights, with properties of their choice. The blank before the last quote keeps a backslash at the end of a
# folder from quoting it; the program takes it away.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeLibrary', 51, 'InitArguments', 'init --all-users --no-test --force --p11 "[P11FILE] "')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeMode', 51, 'InitArguments', '[InitArguments] --mode "[MODE]"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeLogTypes', 51, 'InitArguments', '[InitArguments] --log-types "[LOGTYPES]"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeLogStore', 51, 'InitArguments', '[InitArguments] --log-dir "[LOGSTORE] "')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TakeLogRotate', 51, 'InitArguments', '[InitArguments] --log-rotate "[LOGROTATE]"')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeLibrary', 'P11FILE AND NOT Installed', 1011)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeMode', 'InitArguments AND MODE', 1012)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeLogTypes', 'InitArguments AND LOGTYPES', 1013)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeLogStore', 'InitArguments AND LOGSTORE', 1014)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TakeLogRotate', 'InitArguments AND LOGROTATE', 1015)

# The registration is undone if the first installation fails later. The configuration is written last: what
# fails after it would leave it behind.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Unregister', 3154, 'keywarden.exe', 'unregister')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Unconfigure', 3154, 'keywarden.exe', 'init --all-users --remove')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UndoRegister', 3410, 'keywarden.exe', 'unregister')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Register', 3090, 'keywarden.exe', 'register')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Configure', 3090, 'keywarden.exe', '[InitArguments]')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Unregister', 'REMOVE = "ALL" AND NOT UPGRADINGPRODUCTCODE', 3499)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Unconfigure', 'REMOVE = "ALL" AND NOT UPGRADINGPRODUCTCODE', 3498)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UndoRegister', 'NOT Installed AND NOT WIX_UPGRADE_DETECTED', 6501)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Register', 'NOT REMOVE', 6502)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Configure', 'InitArguments', 6503)
