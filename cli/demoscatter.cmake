# Writes the demo's scatter file beside its images, with their MD5 sums.
# Called as: cmake -DDIR=<directory> -P demoscatter.cmake
foreach(name firmware application)
    file(MD5 "${DIR}/${name}.bin" digest)
    string(TOUPPER "${digest}" md5_${name})
endforeach()
file(WRITE "${DIR}/scatter.txt" "{
    \"chip\": \"ESP8266EX\",
    \"stub\": \"esp8266_loader_stub.elf\",
    \"sections\": [
        {
            \"type\": \"firmware\",
            \"address\": \"0x00000000\",
            \"file\": \"firmware.bin\",
            \"md5\": \"${md5_firmware}\",
            \"options\": {
                \"flash\": {
                    \"mode\": \"dio\",
                    \"size\": \"4MB\",
                    \"frequency\": \"40m\"
                }
            }
        },
        {
            \"type\": \"application\",
            \"address\": \"0x00010000\",
            \"file\": \"application.bin\",
            \"md5\": \"${md5_application}\"
        }
    ]
}
")
