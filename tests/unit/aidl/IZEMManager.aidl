// The daemon's manager interface, described for the platform's code
// generator. No package: the descriptor must be the bare "IZEMManager".
import IZEMCallback;

interface IZEMManager {
    @utf8InCpp String registerZEMClient(@utf8InCpp String name, IZEMCallback callback);
    oneway void checkForPendingCampaign(@utf8InCpp String token);
    void deregisterZEMClient(@utf8InCpp String token);
    boolean sendData(in byte[] data, @utf8InCpp String token);
}
